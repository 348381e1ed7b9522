// kx::CLockFile: a lock between processes, held through a byte-range lock on
// a file for as long as the object lives.
//
// Type 1 is shared (many holders), type 2 exclusive (one holder, and no shared
// one). Holders conflict whether they live in other processes or in this one,
// as far as the file system's locks do (kx::CLocalFileSystem and
// kx::CMemoryFileSystem both lock per open).
//
// The lock file is opened with access 3, so it is made when missing. A shared
// lock also works on a lock file that exists but can't be written (it is then
// opened read-only), so a reader needs no write permission on someone else's
// lock file.
//
// With `deleteOnRelease`, the holder that leaves last deletes the lock file:
// on release it deletes the file if it holds the exclusive lock, or can turn
// its shared lock into one. A deleted lock file may still be open in another
// process that is about to lock it; to keep that process from locking a file
// that no name reaches any more, every holder checks after locking, through
// kx::IFileIdentity, that the name still leads to the file it locked, and
// starts over if not. Where the stream can't tell (it doesn't implement
// kx::IFileIdentity), the file is never deleted: that is the safe side.
// A read-only opened lock file is never deleted either.
//
// Reference counting as for every kx::CBase. One object per holder; the object
// itself is not shared between threads.
#pragma once

#include <memory>

#include "kx/error.h"
#include "kx/file_system.h"

namespace kx {

class CLockFile final : public CBase {
 public:
  static constexpr int kDefaultMaxWaitMilliseconds = 10000;

  // Takes the lock or raises kx::CLockFileError with the property "uri":
  // "VMDK file is locked by another process: " + URI when somebody else holds
  // a conflicting lock, "Cannot open the lock file: " or "Cannot lock the lock
  // file: " + URI when the file system fails (its error is the inner error).
  // With `wait`, a conflict is tried again until `maxWaitMilliseconds` have
  // passed; without it, the first conflict raises. `fileSystem` must not be
  // null and is kept alive by the object; `type` must be 1 or 2 (else
  // kx::CInvalidArgError).
  CLockFile(IFileSystem* fileSystem, const CURI& uri, int type, bool wait, bool deleteOnRelease,
            int maxWaitMilliseconds = kDefaultMaxWaitMilliseconds);
  // Releases the lock (deleting the file, see above). Never raises; a failed
  // deletion is logged as a warning.
  ~CLockFile() override;
  CLockFile(const CLockFile&) = delete;
  CLockFile& operator=(const CLockFile&) = delete;

  const CURI& getURI() const { return uri_; }
  int getType() const { return type_; }

 private:
  enum class Attempt { Locked, Conflict, Stale };

  void openStream();
  Attempt tryLock();
  void deleteIfLast();
  int checkIdentity() noexcept;
  void releaseLock() noexcept;

  P<IFileSystem> fileSystem_;
  CURI uri_;
  int type_;
  bool deleteOnRelease_;
  P<IIOStream> stream_;
  P<IStreamLock> lock_;
  bool writable_ = false;
  bool identityKnown_ = false;            // the stream confirmed that `uri_` leads to the locked file
  std::shared_ptr<CError> lastConflict_;  // the file system's error of the last conflict
};

}  // namespace kx
