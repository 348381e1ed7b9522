#include "zarn/disk_io_stream.h"

#include <algorithm>

#include "kx/error.h"

namespace zarn {

CVMDKDiskIOStream::CVMDKDiskIOStream(CVMDKDisk* disk)
    : disk_(kx::P<CVMDKDisk>::share(disk)) {
  if (!disk_) throw kx::CError("Internal error: CVMDKDiskIOStream needs a disk.");
  streamURI_ = disk_->getMainFileURI();
}

CVMDKDiskIOStream::CVMDKDiskIOStream(kx::IFileSystem* fileSystem, const kx::CURI& uri, kx::IIOStream::Access access,
                                     const kx::String& password)
    : disk_(kx::create<CVMDKDisk>(fileSystem, uri, access, password, -1, nullptr, nullptr)),
      streamURI_(disk_->getMainFileURI()) {}

CVMDKDiskIOStream::~CVMDKDiskIOStream() = default;

CVMDKDisk& CVMDKDiskIOStream::openDisk() {
  if (!disk_) throw kx::CIOError(kx::IOERR_STREAM_CLOSED, "");
  return *disk_;
}

int64_t CVMDKDiskIOStream::getLength() { return openDisk().getSizeBytes(); }
int64_t CVMDKDiskIOStream::getPosition() { return openDisk().getPosition(); }
void CVMDKDiskIOStream::seek(int64_t position) { openDisk().seek(position); }

kx::P<kx::IStreamLock> CVMDKDiskIOStream::lockRange(int64_t, int64_t, LockType) {
  throw kx::CFileSystemError(kx::FSPROB_NOT_SUPPORTED,
                             kx::CError("VMDK Disk I/O stream does not support lockRange."));
}

void CVMDKDiskIOStream::read(void* buffer, int size) { openDisk().read(buffer, size); }

int CVMDKDiskIOStream::readLax(void* buffer, int size) {
  CVMDKDisk& disk = openDisk();
  const int count = static_cast<int>(std::min<int64_t>(size, disk.getSizeBytes() - disk.getPosition()));
  read(buffer, count);
  return count;
}

bool CVMDKDiskIOStream::waitReadable(int) {
  openDisk();
  return true;
}

bool CVMDKDiskIOStream::isEndOfStream() { return getLength() <= getPosition(); }
int CVMDKDiskIOStream::isEndOfStream_NonBlocking() { return isEndOfStream() ? 1 : 0; }

void CVMDKDiskIOStream::write(const void* data, int size, kx::IWriteBarrier*) { openDisk().write(data, size); }

void CVMDKDiskIOStream::writeKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data, kx::IWriteBarrier* barrier) {
  write(data.getData(), static_cast<int>(data.getLength()), barrier);
}

kx::P<kx::IWriteBarrier> CVMDKDiskIOStream::createWriteBarrier(kx::IWriteBarrier*) {
  flush();
  return kx::create<kx::CDummyWriteBarrier>();
}

void CVMDKDiskIOStream::flush() { openDisk().flushChanges(); }

void CVMDKDiskIOStream::setLength(int64_t) {
  openDisk();
  throw kx::CIOError(kx::IOERR_NOT_SUPPORTED, "");
}

}  // namespace zarn
