// kx::IDataRegions: an optional interface of file streams that can tell where
// a sparse file holds data and where it has holes, which read as zeros.
//
// A copy of a large sparse file then costs what its data costs, not what its
// length does. Reach the interface with kx::dynamicCast from the stream; a
// stream without it holds data everywhere.
#pragma once

#include <cstdint>

#include "kx/base.h"

namespace kx {

class IDataRegions : public virtual IBase {
 public:
  // The first run of data at or after `position`: true with `dataStart` (at
  // or after `position`) and `dataEnd` (behind the run's last byte, at most
  // the file's length); false when only holes follow. A file system that
  // can't tell reports everything up to the length as one run. Raises
  // kx::CFileSystemError for a failing system call, kx::CIOError code 10 when
  // the stream is closed.
  virtual bool findData(int64_t position, int64_t& dataStart, int64_t& dataEnd) = 0;
};

}  // namespace kx
