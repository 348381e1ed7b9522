// CVMDKDiskIOStream: a disk as a kx::IIOStream of getSizeBytes() bytes.
//
// A thin adapter with no position or buffer of its own: each operation goes
// to the disk. A write barrier is honoured by flushing when it is created.
// After close every operation but getURI, close and lockRange raises
// kx::CIOError code 10; setLength raises code 13 (a disk's size is fixed) and
// lockRange a kx::CFileSystemError FSPROB_NOT_SUPPORTED. One thread at a time,
// shared with every other user of the same disk object.
#pragma once

#include "kx/base.h"
#include "kx/stream.h"
#include "zarn/disk.h"

namespace zarn {

class CVMDKDiskIOStream : public kx::CBase, public kx::IIOStream {
 public:
  // Over a disk that the caller opened (a reference is taken); not null.
  explicit CVMDKDiskIOStream(CVMDKDisk* disk);
  // Opens the disk itself, with the default compression level, a new cache
  // and the parent that its descriptor names.
  CVMDKDiskIOStream(kx::IFileSystem* fileSystem, const kx::CURI& uri, kx::IIOStream::Access access,
                    const kx::String& password);
  ~CVMDKDiskIOStream() override;

  int64_t getLength() override;
  int64_t getPosition() override;
  kx::CURI getURI() override { return streamURI_; }
  void seek(int64_t position) override;
  kx::P<kx::IStreamLock> lockRange(int64_t offset, int64_t length, LockType type) override;
  // Lets go of the disk; if that was its last reference the disk flushes and
  // releases its lock here.
  void close() override { disk_ = nullptr; }

  void read(void* buffer, int size) override;
  // As much as there is: the count asked for, or what is left to the end.
  int readLax(void* buffer, int size) override;
  int readAvailable(void* buffer, int size) override { return readLax(buffer, size); }
  bool waitReadable(int timeoutMilliseconds) override;
  bool isEndOfStream() override;
  int isEndOfStream_NonBlocking() override;

  void write(const void* data, int size, kx::IWriteBarrier* barrier) override;
  void writeKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data, kx::IWriteBarrier* barrier) override;
  kx::P<kx::IWriteBarrier> createWriteBarrier(kx::IWriteBarrier* previous) override;
  void flush() override;
  void setLength(int64_t length) override;

  kx::P<CVMDKDisk> getDisk() const { return disk_; }

 private:
  CVMDKDisk& openDisk();

  kx::P<CVMDKDisk> disk_;
  kx::CURI streamURI_;
};

}  // namespace zarn
