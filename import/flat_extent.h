// Flat and zero extents of a foreign disk.
//
// A flat extent ("FLAT", or "VMFS", its name on another file system) is a raw
// file whose bytes from a sector offset on are the extent's bytes, all of them
// written. A zero extent ("ZERO") has no file and reads as zeros that hide a
// parent's bytes.
#pragma once

#include <cstdint>

#include "import/foreign_extent.h"
#include "kx/base.h"
#include "kx/file_system.h"
#include "kx/uri.h"

namespace zarn {

class CVMDKForeignFlatExtent : public kx::CBase, public IVMDKForeignExtent {
 public:
  // Opens `uri` read-only for an extent line of `lineSectors` sectors whose
  // bytes begin at sector `offsetSectors` of the file. REQUIRES: both
  // counts in bytes, and their sum, fit a signed 64-bit number. Raises what
  // the file system raises. A file that ends early is no error here: the
  // reads beyond its end fail.
  CVMDKForeignFlatExtent(kx::IFileSystem* fileSystem, const kx::CURI& uri, int64_t lineSectors,
                         int64_t offsetSectors);
  ~CVMDKForeignFlatExtent() override;

  // Stored, to the extent's end.
  VMDKForeignGrainState getState(int64_t offset, int64_t maxBytes, bool exact, int64_t& runBytes) override;
  // Raises kx::CIOError code 5 with "uri" when the range reaches past the
  // end of the file.
  void read(int64_t offset, void* buffer, int bytes) override;
  // False: a flat extent stores nothing compressed.
  bool tryReadStoredGrain(int64_t offset, int64_t grainBytes, kx::TBuffer<unsigned char>& data) override;

 private:
  kx::P<kx::IIOStream> stream_;
  kx::CURI uri_;
  int64_t lineBytes_;
  int64_t offsetBytes_;
  int64_t lengthBytes_;
};

class CVMDKForeignZeroExtent : public kx::CBase, public IVMDKForeignExtent {
 public:
  explicit CVMDKForeignZeroExtent(int64_t lineSectors);
  ~CVMDKForeignZeroExtent() override;

  // Zero, to the extent's end.
  VMDKForeignGrainState getState(int64_t offset, int64_t maxBytes, bool exact, int64_t& runBytes) override;
  // Zeros.
  void read(int64_t offset, void* buffer, int bytes) override;
  // False.
  bool tryReadStoredGrain(int64_t offset, int64_t grainBytes, kx::TBuffer<unsigned char>& data) override;

 private:
  int64_t lineBytes_;
};

}  // namespace zarn
