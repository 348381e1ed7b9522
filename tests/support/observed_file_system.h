// test::CObservedFileSystem: a wrapper file system that sees each operation
// before it happens, on itself and on every stream that it opened. The base
// of the counting and the fault-injecting file systems.
#pragma once

#include "kx/file_system_wrapper.h"
#include "tests/support/stream_wrapper.h"

namespace test {

// The kinds of operation that are observed. Read covers read, readLax and
// readAvailable; Write covers write and writeKeepBuffer; Flush covers flush
// and createWriteBarrier. Getters, close, waitReadable and the end-of-stream
// tests aren't observed.
enum class FileOp { Open, Read, Write, Seek, Flush, SetLength, Lock, Delete, Rename };
constexpr int kFileOpCount = 9;

const char* getFileOpName(FileOp op);

class CObservedFileSystem : public kx::CFileSystemWrapper {
 public:
  using kx::CFileSystemWrapper::CFileSystemWrapper;

  kx::P<kx::IIOStream> openFile(const kx::CURI& uri, kx::IIOStream::Access access, int& flags) override;
  void deleteFile(const kx::CURI& uri, bool missingIsOk) override;
  void renameFile(const kx::CURI& from, const kx::CURI& to) override;

  // Called before each observed operation with the URI of its file. If it
  // raises, the operation fails with that error and the target isn't called.
  // `size` is the byte count of a read or write, else 0. May be called from
  // several threads when streams are used on several threads.
  virtual void onOperation(FileOp op, const kx::CURI& uri, int size) = 0;
};

}  // namespace test
