#include "kx/lock_file.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "kx/file_identity.h"
#include "kx/log.h"

namespace kx {

namespace {

// The lock covers the first byte, whether or not the file has one: the file's
// content plays no part.
constexpr int64_t kLockOffset = 0;
constexpr int64_t kLockBytes = 1;
// Each round of "the file was deleted between our open and our lock" means
// that another holder released it meanwhile; more rounds than this in a row
// mean that something outside the protocol keeps replacing the file.
constexpr int kMaxStaleRounds = 100;
constexpr int kFirstRetryDelayMilliseconds = 5;
constexpr int kMaxRetryDelayMilliseconds = 100;

}  // namespace

CLockFile::CLockFile(IFileSystem* fileSystem, const CURI& uri, int type, bool wait, bool deleteOnRelease,
                     int maxWaitMilliseconds)
    : fileSystem_(P<IFileSystem>::share(fileSystem)),
      uri_(uri),
      type_(type),
      deleteOnRelease_(deleteOnRelease) {
  if (!fileSystem_) throw CError("Internal error: CLockFile needs a file system");
  if (type != IStreamBase::LOCK_SHARED && type != IStreamBase::LOCK_EXCLUSIVE) {
    throw CInvalidArgError("CLockFile", "Bad lock type",
                           CProps().add("uri", uri.toString(true)).add("type", int64_t{type}));
  }
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline =
      Clock::now() + std::chrono::milliseconds(wait ? std::max(0, maxWaitMilliseconds) : 0);
  int delayMilliseconds = kFirstRetryDelayMilliseconds;
  int staleRounds = 0;
  for (;;) {
    openStream();
    const Attempt attempt = tryLock();
    if (attempt == Attempt::Locked) return;
    releaseLock();
    if (attempt == Attempt::Stale) {
      if (++staleRounds > kMaxStaleRounds) {
        throw CLockFileError(String("The lock file keeps being replaced: ") + uri_.toString(true),
                             CProps().add("uri", uri_.toString(true)));
      }
      continue;
    }
    const Clock::time_point now = Clock::now();
    if (now >= deadline) {
      throw CLockFileError(String("VMDK file is locked by another process: ") + uri_.toString(true),
                           CProps().add("uri", uri_.toString(true)), lastConflict_.get());
    }
    std::this_thread::sleep_for(
        std::min<Clock::duration>(std::chrono::milliseconds(delayMilliseconds), deadline - now));
    delayMilliseconds = std::min(delayMilliseconds * 2, kMaxRetryDelayMilliseconds);
  }
}

CLockFile::~CLockFile() {
  try {
    deleteIfLast();
  } catch (const std::exception& e) {
    logWarning(e, String("Cannot delete the lock file: ") + uri_.toString(true));
  }
  releaseLock();
}

void CLockFile::openStream() {
  int flags = 0;
  writable_ = false;
  try {
    stream_ = fileSystem_->openFile(uri_, IIOStream::ACCESS_READ_WRITE, flags);
    writable_ = true;
    return;
  } catch (const CFileSystemError& e) {
    if (type_ == IStreamBase::LOCK_SHARED && e.getProblem() == FSPROB_ACCESS_DENIED) {
      try {
        stream_ = fileSystem_->openFile(uri_, IIOStream::ACCESS_READ, flags);
        return;
      } catch (const CError&) {
        // The first error says more: the file can't be made or written.
      }
    }
    throw CLockFileError(String("Cannot open the lock file: ") + uri_.toString(true),
                         CProps().add("uri", uri_.toString(true)), &e);
  } catch (const CError& e) {
    throw CLockFileError(String("Cannot open the lock file: ") + uri_.toString(true),
                         CProps().add("uri", uri_.toString(true)), &e);
  }
}

CLockFile::Attempt CLockFile::tryLock() {
  const auto lockType =
      type_ == IStreamBase::LOCK_EXCLUSIVE ? IStreamBase::LOCK_EXCLUSIVE : IStreamBase::LOCK_SHARED;
  try {
    lock_ = stream_->lockRange(kLockOffset, kLockBytes, lockType);
  } catch (const CFileSystemError& e) {
    if (e.getProblem() == FSPROB_LOCKED) {
      lastConflict_ = e.clone();
      return Attempt::Conflict;
    }
    releaseLock();
    throw CLockFileError(String("Cannot lock the lock file: ") + uri_.toString(true),
                         CProps().add("uri", uri_.toString(true)), &e);
  } catch (const CError& e) {
    releaseLock();
    throw CLockFileError(String("Cannot lock the lock file: ") + uri_.toString(true),
                         CProps().add("uri", uri_.toString(true)), &e);
  }
  const int same = checkIdentity();
  if (same == 0) return Attempt::Stale;
  identityKnown_ = same == 1;
  return Attempt::Locked;
}

int CLockFile::checkIdentity() noexcept {
  try {
    P<IFileIdentity> identity = dynamicCast<IFileIdentity>(stream_);
    return identity ? identity->checkSameFile(uri_) : -1;
  } catch (const std::exception&) {
    return -1;
  }
}

void CLockFile::deleteIfLast() {
  if (!deleteOnRelease_ || !writable_ || !identityKnown_ || !lock_) return;
  P<IStreamLock> exclusive;
  if (type_ != IStreamBase::LOCK_EXCLUSIVE) {
    try {
      exclusive = stream_->lockRange(kLockOffset, kLockBytes, IStreamBase::LOCK_EXCLUSIVE);
    } catch (const CFileSystemError& e) {
      if (e.getProblem() == FSPROB_LOCKED) return;  // other holders remain; the last of them deletes
      throw;
    }
  }
  // Deleted while still locked, so nobody can lock this file between the check and the deletion.
  if (checkIdentity() == 1) fileSystem_->deleteFile(uri_, true);
}

void CLockFile::releaseLock() noexcept {
  lock_ = nullptr;
  if (stream_) {
    try {
      stream_->close();
    } catch (const std::exception&) {
      // Closing a file that is only read and locked loses nothing.
    }
    stream_ = nullptr;
  }
}

}  // namespace kx
