// CVMDKForeignSparseExtent: a sparse extent file of another tool, read-only.
//
// Plain extents hold each grain in place; compressed ones hold it behind a
// 12-byte grain header (the grain's address in sectors, the size of the
// deflate data), wherever the grain map says (see CVMDKForeignGrainMap).
//
// What this library's own opening refuses and this class reads, because it
// only endangers writing, or is a form of the data that other writers use:
//   - grain table entries of 1: zeroed grains that read as zeros and hide
//     the parent's bytes;
//   - a grain directory at the end of the file (all ones in the header), and
//     compressed extents without this library's slot directory, whose slot
//     sizes only a writer needs;
//   - compression and marker flags that differ: the grains' form follows the
//     compression flag alone;
//   - metadata areas that overlap or reach past the head: nothing is written.
// Still refused, as damage: a geometry that can't be (grain size, entries per
// table, capacity), an extent line beyond the capacity, and per grain an
// entry inside the head, a grain past the file's end, a grain header that
// names another grain or an impossible size, deflate data that doesn't
// unpack.
#pragma once

#include <cstdint>

#include "import/foreign_extent.h"
#include "import/grain_map.h"
#include "import/grain_unpacker.h"
#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/error.h"
#include "kx/file_system.h"
#include "kx/uri.h"
#include "zarn/sparse_extent_header.h"

namespace zarn {

class CVMDKForeignSparseExtent : public kx::CBase, public IVMDKForeignExtent {
 public:
  // Opens `uri` read-only for an extent line of `lineSectors` sectors that
  // begins at disk sector `diskStartSector`. `unpacker` unpacks the grains
  // of a compressed extent; it is kept and must not be null. `maps`,
  // if not null, gives the grain map of a file already mapped and takes the
  // new one; one thread at a time uses it with all its extents. Raises
  // kx::CIOError with "uri": code 5 for a header or geometry that can't be
  // read (see above), code 6 for a version other than 1 to 3, code 13 for
  // an encrypted extent; and what the file system raises.
  CVMDKForeignSparseExtent(kx::IFileSystem* fileSystem, const kx::CURI& uri, int64_t lineSectors,
                           int64_t diskStartSector, CVMDKForeignGrainUnpacker* unpacker,
                           CVMDKForeignGrainMapCache* maps = nullptr);
  ~CVMDKForeignSparseExtent() override;
  CVMDKForeignSparseExtent(const CVMDKForeignSparseExtent&) = delete;
  CVMDKForeignSparseExtent& operator=(const CVMDKForeignSparseExtent&) = delete;

  int64_t getGrainSizeSectors() const { return grainSizeSectors_; }
  bool getCompressed() const { return compressed_; }
  const CVMDKSparseExtentHeader& getHeader() const { return header_; }
  const CVMDKForeignGrainMap& getGrainMap() const { return *map_; }

  // A compressed grain that doesn't unpack is Stored to an exact getState;
  // its read raises the error.
  VMDKForeignGrainState getState(int64_t offset, int64_t maxBytes, bool exact, int64_t& runBytes) override;
  void read(int64_t offset, void* buffer, int bytes) override;
  bool tryReadStoredGrain(int64_t offset, int64_t grainBytes, kx::TBuffer<unsigned char>& data) override;

 private:
  kx::CProps uriProps() const;
  void checkHeader(int64_t lineSectors);
  // The start of a grain's stored form, checked against the head; raises
  // kx::CIOError code 5 for an entry inside the head.
  int64_t getDataPosition(int64_t grainIndex, uint64_t entry) const;
  // Header and deflate data of the grain whose stored form begins at `entry`.
  void readStoredForm(int64_t grainIndex, uint64_t entry, kx::TBuffer<unsigned char>& out);
  // Has the unpacker hold compressed grain `grainIndex`; returns its bytes.
  // Raises kx::CIOError code 5, now and at every later call, for a grain
  // that doesn't unpack.
  const unsigned char* unpackGrain(int64_t grainIndex, uint64_t entry);

  kx::P<kx::IIOStream> stream_;
  kx::CURI uri_;
  CVMDKSparseExtentHeader header_;
  int64_t lengthBytes_ = 0;
  int64_t lineBytes_ = 0;
  int64_t grainSizeSectors_ = 0;
  int64_t grainSizeBytes_ = 0;
  int64_t startGrainIndex_ = 0;  // the disk's grain index of the extent's first grain
  bool compressed_ = false;
  kx::P<CVMDKForeignGrainMap> map_;
  kx::P<CVMDKForeignGrainUnpacker> unpacker_;
};

}  // namespace zarn
