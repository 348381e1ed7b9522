#include "kx/memory_file_system.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <string>

#include "foundation/kx/stream_checks.h"
#include "kx/error.h"
#include "kx/file_identity.h"

namespace kx {

// One file's bytes and the byte-range locks on it. Every member is guarded by
// `mutex`, since streams of one file may live on different threads.
class CMemoryFile final : public CBase {
 public:
  struct RangeLock {
    uint64_t id;
    uint64_t ownerID;  // the stream that took it
    int64_t offset;
    int64_t length;
    IStreamBase::LockType type;
  };

  std::mutex mutex;
  TBuffer<unsigned char> data;
  std::vector<RangeLock> locks;
  uint64_t nextID = 1;  // for locks and stream owners alike

  int64_t getLength() const { return static_cast<int64_t>(data.getUsed()); }

  // Sets the length; bytes that come into use are zero.
  void resize(size_t length) {
    const size_t old = data.getUsed();
    if (length > data.getAllocated()) {
      // Geometric growth keeps a run of small appends linear.
      data.ensureAllocated(std::max(length, data.getAllocated() * 2));
    }
    data.setUsed(length);
    if (length > old) std::memset(data.getData() + old, 0, length - old);
  }
};

namespace {

CFileSystemError makeNotFoundError(const CURI& uri) {
  return CFileSystemError(FSPROB_NOT_FOUND, CError(String("File not found: ") + uri.toString(true), String(),
                                                   -1, makeURIProps(uri)));
}

std::string makeKey(const CURI& uri) {
  if (uri.isEmpty() || uri.getPath().isEmpty() || uri.getPath().EndsWith("/")) {
    throw CFileSystemError(FSPROB_BAD_NAME, CError(String("Not a file URI: ") + uri.toString(true), String(),
                                                   -1, makeURIProps(uri)));
  }
  return uri.toNormalized().toString().toUTF8();
}

class CMemoryStreamLock final : public CBase, public IStreamLock {
 public:
  CMemoryStreamLock(const P<CMemoryFile>& file, uint64_t id) : file_(file), id_(id) {}
  ~CMemoryStreamLock() override {
    std::lock_guard<std::mutex> guard(file_->mutex);
    auto& locks = file_->locks;
    locks.erase(std::remove_if(locks.begin(), locks.end(),
                               [this](const CMemoryFile::RangeLock& lock) { return lock.id == id_; }),
                locks.end());
  }

 private:
  P<CMemoryFile> file_;
  uint64_t id_;
};

}  // namespace

class CMemoryFileStream final : public CBase, public IIOStream, public IFileIdentity {
 public:
  CMemoryFileStream(const P<CMemoryFileSystem>& fileSystem, const P<CMemoryFile>& file, const CURI& uri,
                    Access access)
      : fileSystem_(fileSystem), file_(file), uri_(uri), access_(access) {
    std::lock_guard<std::mutex> guard(file_->mutex);
    ownerID_ = file_->nextID++;
  }

  int64_t getLength() override {
    std::lock_guard<std::mutex> guard(getFile().mutex);
    return file_->getLength();
  }

  int64_t getPosition() override {
    getFile();
    return position_;
  }

  CURI getURI() override { return uri_; }

  void seek(int64_t position) override {
    std::lock_guard<std::mutex> guard(getFile().mutex);
    const int64_t length = file_->getLength();
    if (position < 0 || position > length) throwBadSeek(uri_, position, length);
    position_ = position;
  }

  P<IStreamLock> lockRange(int64_t offset, int64_t length, LockType type) override {
    CMemoryFile& file = getFile();
    checkLockRange(offset, length, "CMemoryFileSystem::lockRange");
    if (type == LOCK_EXCLUSIVE && !(access_ & ACCESS_WRITE)) throwAccessMismatch(uri_, true);
    std::lock_guard<std::mutex> guard(file.mutex);
    for (const auto& held : file.locks) {
      if (held.ownerID != ownerID_ && (held.type == LOCK_EXCLUSIVE || type == LOCK_EXCLUSIVE) &&
          lockRangesOverlap(held.offset, held.length, offset, length)) {
        throw CFileSystemError(
            FSPROB_LOCKED,
            CError(String("File range is locked by another stream: ") + uri_.toString(true), String(), -1,
                   makeURIProps(uri_).add("offset", offset).add("length", length)));
      }
    }
    const uint64_t id = file.nextID++;
    file.locks.push_back(CMemoryFile::RangeLock{id, ownerID_, offset, length, type});
    return P<IStreamLock>::adopt(new CMemoryStreamLock(file_, id));
  }

  void close() override {
    file_ = nullptr;
    fileSystem_ = nullptr;
  }

  void read(void* buffer, int size) override {
    checkIOSize(size, "CMemoryFileSystem::read");
    checkReadable();
    std::lock_guard<std::mutex> guard(file_->mutex);
    const int64_t length = file_->getLength();
    if (size > length - position_) throwReadPastEnd(uri_, position_, size, length);
    if (size > 0) std::memcpy(buffer, file_->data.getData() + position_, static_cast<size_t>(size));
    position_ += size;
  }

  int readLax(void* buffer, int size) override {
    checkIOSize(size, "CMemoryFileSystem::readLax");
    checkReadable();
    std::lock_guard<std::mutex> guard(file_->mutex);
    const int64_t left = std::max<int64_t>(0, file_->getLength() - position_);
    const int count = static_cast<int>(std::min<int64_t>(size, left));
    if (count > 0) std::memcpy(buffer, file_->data.getData() + position_, static_cast<size_t>(count));
    position_ += count;
    return count;
  }

  int readAvailable(void* buffer, int size) override { return readLax(buffer, size); }

  bool waitReadable(int) override {
    getFile();
    return true;
  }

  bool isEndOfStream() override {
    std::lock_guard<std::mutex> guard(getFile().mutex);
    return position_ >= file_->getLength();
  }

  int isEndOfStream_NonBlocking() override { return isEndOfStream() ? 1 : 0; }

  void write(const void* data, int size, IWriteBarrier*) override {
    checkIOSize(size, "CMemoryFileSystem::write");
    checkWritable();
    if (size == 0) return;
    std::lock_guard<std::mutex> guard(file_->mutex);
    const int64_t end = position_ + size;
    if (end > file_->getLength()) file_->resize(static_cast<size_t>(end));
    std::memcpy(file_->data.getData() + position_, data, static_cast<size_t>(size));
    position_ = end;
  }

  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) override {
    if (data.getLength() > static_cast<size_t>(std::numeric_limits<int>::max())) {
      throw CInvalidArgError("CMemoryFileSystem::writeKeepBuffer", "Slice too large",
                             CProps().add("size", static_cast<uint64_t>(data.getLength())));
    }
    write(data.getData(), static_cast<int>(data.getLength()), barrier);
  }

  P<IWriteBarrier> createWriteBarrier(IWriteBarrier*) override {
    flush();
    return P<IWriteBarrier>::adopt(new CDummyWriteBarrier());
  }

  // Nothing is ever buffered, and there is no device to reach.
  void flush() override { getFile(); }

  void setLength(int64_t length) override {
    checkWritable();
    if (length < 0) {
      throw CInvalidArgError("CMemoryFileSystem::setLength", "Negative length",
                             CProps().add("length", length));
    }
    std::lock_guard<std::mutex> guard(file_->mutex);
    file_->resize(static_cast<size_t>(length));
  }

  int checkSameFile(const CURI& uri) override {
    getFile();
    return fileSystem_->findFile(uri) == file_ ? 1 : 0;
  }

 private:
  CMemoryFile& getFile() {
    if (!file_) throwStreamClosed();
    return *file_;
  }
  void checkReadable() {
    getFile();
    if (!(access_ & ACCESS_READ)) throwAccessMismatch(uri_, false);
  }
  void checkWritable() {
    getFile();
    if (!(access_ & ACCESS_WRITE)) throwAccessMismatch(uri_, true);
  }

  P<CMemoryFileSystem> fileSystem_;
  P<CMemoryFile> file_;  // null once closed
  CURI uri_;
  Access access_;
  int64_t position_ = 0;  // may lie past the end after another stream shortened the file
  uint64_t ownerID_ = 0;
};

struct CMemoryFileSystem::Files {
  struct Entry {
    CURI uri;
    P<CMemoryFile> file;
  };
  std::mutex mutex;
  std::map<std::string, Entry> byKey;
};

CMemoryFileSystem::CMemoryFileSystem() : files_(std::make_unique<Files>()) {}

CMemoryFileSystem::~CMemoryFileSystem() = default;

P<IIOStream> CMemoryFileSystem::openFile(const CURI& uri, IIOStream::Access access, int&) {
  if (access < IIOStream::ACCESS_READ || access > IIOStream::ACCESS_READ_WRITE) {
    throw CInvalidArgError("CMemoryFileSystem::openFile", "Bad access",
                           makeURIProps(uri).add("access", int64_t{access}));
  }
  const std::string key = makeKey(uri);
  P<CMemoryFile> file;
  {
    std::lock_guard<std::mutex> guard(files_->mutex);
    auto found = files_->byKey.find(key);
    if (found != files_->byKey.end()) {
      file = found->second.file;
    } else if (access & IIOStream::ACCESS_WRITE) {
      file = create<CMemoryFile>();
      files_->byKey.emplace(key, Files::Entry{uri, file});
    } else {
      throw makeNotFoundError(uri);
    }
  }
  return P<IIOStream>::adopt(new CMemoryFileStream(P<CMemoryFileSystem>::share(this), file, uri, access));
}

bool CMemoryFileSystem::fileExists(const CURI& uri) { return findFile(uri) != nullptr; }

void CMemoryFileSystem::deleteFile(const CURI& uri, bool missingIsOk) {
  const std::string key = makeKey(uri);
  std::lock_guard<std::mutex> guard(files_->mutex);
  if (files_->byKey.erase(key) == 0 && !missingIsOk) throw makeNotFoundError(uri);
}

void CMemoryFileSystem::renameFile(const CURI& from, const CURI& to) {
  const std::string fromKey = makeKey(from), toKey = makeKey(to);
  std::lock_guard<std::mutex> guard(files_->mutex);
  auto found = files_->byKey.find(fromKey);
  if (found == files_->byKey.end()) throw makeNotFoundError(from);
  if (fromKey == toKey) return;
  P<CMemoryFile> file = found->second.file;
  files_->byKey.erase(found);
  files_->byKey[toKey] = Files::Entry{to, file};
}

P<CMemoryFile> CMemoryFileSystem::findFile(const CURI& uri) {
  const std::string key = makeKey(uri);
  std::lock_guard<std::mutex> guard(files_->mutex);
  auto found = files_->byKey.find(key);
  return found == files_->byKey.end() ? P<CMemoryFile>() : found->second.file;
}

TBuffer<unsigned char> CMemoryFileSystem::getFileData(const CURI& uri) {
  P<CMemoryFile> file = findFile(uri);
  if (!file) throw makeNotFoundError(uri);
  std::lock_guard<std::mutex> guard(file->mutex);
  return TBuffer<unsigned char>(file->data);
}

void CMemoryFileSystem::setFileData(const CURI& uri, const void* data, size_t size) {
  const std::string key = makeKey(uri);
  P<CMemoryFile> file;
  {
    std::lock_guard<std::mutex> guard(files_->mutex);
    auto found = files_->byKey.find(key);
    if (found == files_->byKey.end()) {
      found = files_->byKey.emplace(key, Files::Entry{uri, create<CMemoryFile>()}).first;
    }
    file = found->second.file;
  }
  std::lock_guard<std::mutex> guard(file->mutex);
  file->data.assign(static_cast<const unsigned char*>(data), size);
}

std::vector<CURI> CMemoryFileSystem::listFiles() {
  std::vector<CURI> uris;
  std::lock_guard<std::mutex> guard(files_->mutex);
  for (const auto& item : files_->byKey) uris.push_back(item.second.uri);
  return uris;
}

}  // namespace kx
