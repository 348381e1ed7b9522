#include "zarn/low_level_file_stream.h"

#include "kx/write_back.h"

namespace zarn {
namespace {

constexpr int64_t kWriteBackBytes = 16 << 20;

kx::P<kx::IIOStream> openTarget(kx::IFileSystem* fileSystem, const kx::CURI& uri, kx::IIOStream::Access access) {
  int flags = 0;
  kx::P<kx::IIOStream> stream = fileSystem->openFile(uri, access, flags);
  // A disk flushes what it writes: the device may start on it at once.
  if (access & kx::IIOStream::ACCESS_WRITE) {
    if (auto writeBack = kx::dynamicCast<kx::IWriteBack>(stream)) writeBack->setWriteBackInterval(kWriteBackBytes);
  }
  return stream;
}

}  // namespace

CVMDKLowLevelFileStream::CVMDKLowLevelFileStream(kx::IFileSystem* fileSystem, const kx::CURI& uri,
                                                 kx::IIOStream::Access access)
    : kx::COptimizingIOStream(openTarget(fileSystem, uri, access)) {}

kx::P<kx::IIOStream> openVMDKFileStream(kx::IFileSystem* fileSystem, const kx::CURI& uri,
                                        kx::IIOStream::Access access) {
  return kx::create<CVMDKLowLevelFileStream>(fileSystem, uri, access);
}

}  // namespace zarn
