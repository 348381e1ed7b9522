// The one way this library opens a file for sector-wise access.
#pragma once

#include "kx/base.h"
#include "kx/file_system.h"
#include "kx/optimizing_stream.h"
#include "kx/uri.h"

namespace zarn {

// A buffering stream on a file of a kx::IFileSystem. It adds no behaviour to
// kx::COptimizingIOStream: position after buffered writes, read-after-write at
// the same position, write-back on flush and in the destructor.
class CVMDKLowLevelFileStream : public kx::COptimizingIOStream {
 public:
  // Opens `uri` through `fileSystem` (access 1 read-only, 3 read and write,
  // which makes a missing file). Raises what the file system raises; a failed
  // construction leaves nothing open.
  CVMDKLowLevelFileStream(kx::IFileSystem* fileSystem, const kx::CURI& uri, kx::IIOStream::Access access);
};

// Makes a CVMDKLowLevelFileStream and hands out its stream side.
kx::P<kx::IIOStream> openVMDKFileStream(kx::IFileSystem* fileSystem, const kx::CURI& uri,
                                        kx::IIOStream::Access access);

}  // namespace zarn
