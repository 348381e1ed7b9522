#include "tests/support/observed_file_system.h"

namespace test {

namespace {

// Streams keep their file system alive, so a stream may outlive the caller's
// last reference to it.
class CObservedStream final : public CStreamWrapper {
 public:
  CObservedStream(const kx::P<CObservedFileSystem>& fileSystem, const kx::P<kx::IIOStream>& target)
      : CStreamWrapper(target), fileSystem_(fileSystem), uri_(target->getURI()) {}

  void seek(int64_t position) override { observe(FileOp::Seek), CStreamWrapper::seek(position); }
  kx::P<kx::IStreamLock> lockRange(int64_t offset, int64_t length, LockType type) override {
    return observe(FileOp::Lock), CStreamWrapper::lockRange(offset, length, type);
  }
  void read(void* buffer, int size) override {
    observe(FileOp::Read, size), CStreamWrapper::read(buffer, size);
  }
  int readLax(void* buffer, int size) override {
    return observe(FileOp::Read, size), CStreamWrapper::readLax(buffer, size);
  }
  int readAvailable(void* buffer, int size) override {
    return observe(FileOp::Read, size), CStreamWrapper::readAvailable(buffer, size);
  }
  void write(const void* data, int size, kx::IWriteBarrier* barrier) override {
    observe(FileOp::Write, size), CStreamWrapper::write(data, size, barrier);
  }
  void writeKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data,
                       kx::IWriteBarrier* barrier) override {
    observe(FileOp::Write, static_cast<int>(data.getLength())),
        CStreamWrapper::writeKeepBuffer(data, barrier);
  }
  kx::P<kx::IWriteBarrier> createWriteBarrier(kx::IWriteBarrier* previous) override {
    return observe(FileOp::Flush), CStreamWrapper::createWriteBarrier(previous);
  }
  void flush() override { observe(FileOp::Flush), CStreamWrapper::flush(); }
  void setLength(int64_t length) override { observe(FileOp::SetLength), CStreamWrapper::setLength(length); }

 private:
  void observe(FileOp op, int size = 0) { fileSystem_->onOperation(op, uri_, size); }

  kx::P<CObservedFileSystem> fileSystem_;
  kx::CURI uri_;
};

}  // namespace

const char* getFileOpName(FileOp op) {
  static const char* const kNames[kFileOpCount] = {"open",      "read", "write",  "seek",  "flush",
                                                   "setLength", "lock", "delete", "rename"};
  return kNames[static_cast<int>(op)];
}

kx::P<kx::IIOStream> CObservedFileSystem::openFile(const kx::CURI& uri, kx::IIOStream::Access access,
                                                   int& flags) {
  onOperation(FileOp::Open, uri, 0);
  kx::P<kx::IIOStream> target = kx::CFileSystemWrapper::openFile(uri, access, flags);
  return kx::P<kx::IIOStream>::adopt(new CObservedStream(kx::P<CObservedFileSystem>::share(this), target));
}

void CObservedFileSystem::deleteFile(const kx::CURI& uri, bool missingIsOk) {
  onOperation(FileOp::Delete, uri, 0);
  kx::CFileSystemWrapper::deleteFile(uri, missingIsOk);
}

void CObservedFileSystem::renameFile(const kx::CURI& from, const kx::CURI& to) {
  onOperation(FileOp::Rename, from, 0);
  kx::CFileSystemWrapper::renameFile(from, to);
}

}  // namespace test
