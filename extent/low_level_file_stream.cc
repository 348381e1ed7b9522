#include "zarn/low_level_file_stream.h"

namespace zarn {
namespace {

kx::P<kx::IIOStream> openTarget(kx::IFileSystem* fileSystem, const kx::CURI& uri, kx::IIOStream::Access access) {
  int flags = 0;
  return fileSystem->openFile(uri, access, flags);
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
