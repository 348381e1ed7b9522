// CVMDKForeignGrainMap: where each grain of one foreign sparse extent file
// lies.
//
// The map comes from one of three places, tried in this order:
//   1. the grain directory that the header names (plain extents, this
//      library's compressed layout, and stream-optimized files whose writer
//      keeps its tables at the head);
//   2. for a compressed extent whose header says the directory lies at the
//      end (all ones), the directory that the footer names: the footer is
//      the header sector again, behind a footer marker and before the
//      end-of-stream marker at the end of the file (zero sectors may follow);
//   3. for a compressed extent without a usable directory or footer (a file
//      cut short), one forward scan of the grain markers from the head's end,
//      where a later marker for the same grain wins.
// Tables are read when first needed and a few are kept.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/error.h"
#include "kx/mru_cache.h"
#include "kx/stream.h"
#include "zarn/sparse_extent_header.h"

namespace zarn {

// Reference counted. One thread at a time; the stream is shared with the
// extent, and every operation seeks before it reads.
class CVMDKForeignGrainMap : public kx::CBase {
 public:
  // Table entries that name no sector of data.
  static constexpr uint64_t kEntryAbsent = 0;
  static constexpr uint64_t kEntryZero = 1;
  // A grain's compressed data is never larger than this many bytes per byte
  // of grain, plus a sector: deflate's worst case stays far below.
  static constexpr int64_t kMaxCompressedPerGrainByte = 2;
  // Zero sectors that may follow the end-of-stream marker.
  static constexpr int64_t kMaxTailPaddingSectors = 2048;
  // Tables kept in memory per extent.
  static constexpr int32_t kTableCacheLimit = 64;

  enum class Source { HeaderDirectory, FooterDirectory, MarkerScan };

  // REQUIRES: `header` is the file's header, its geometry checked by the
  // caller: grain size 1 to kVMDKMaxGrainSizeSectors, 1 to
  // kVMDKMaxGrainTableEntryCount entries per table, capacity in bytes within
  // a signed 64-bit number. `compressed` says whether grains carry grain
  // headers; only then do steps 2 and 3 above apply. Reads the directory;
  // tables wait. Raises kx::CIOError code 5 with "uri" when a plain
  // extent's directory lies beyond the file, and what the stream raises.
  // Logs a warning when it falls back to the scan.
  CVMDKForeignGrainMap(kx::IIOStream* stream, const CVMDKSparseExtentHeader& header, bool compressed);
  ~CVMDKForeignGrainMap() override;
  CVMDKForeignGrainMap(const CVMDKForeignGrainMap&) = delete;
  CVMDKForeignGrainMap& operator=(const CVMDKForeignGrainMap&) = delete;

  Source getSource() const { return source_; }
  int64_t getGrainCount() const { return grainCount_; }
  // The sector where grain `grainIndex` begins (its data, or for a
  // compressed extent its grain header), or kEntryAbsent, or kEntryZero. The
  // sector is not checked against the file here. REQUIRES: 0 <= grainIndex <
  // getGrainCount(). Raises kx::CIOError code 5 with "uri" and "tableIndex"
  // when the grain's table doesn't lie in the file.
  uint64_t getEntry(int64_t grainIndex);
  // Whether the slot directory of this library's compressed layout follows
  // the last grain table; false without tables.
  bool hasSlotDirectory() const { return hasSlotDirectory_; }

 private:
  kx::CProps uriProps() const;
  // Loads `tableCount_` directory words at `sector`; false when they don't
  // lie in the file.
  bool tryLoadDirectory(uint64_t sector);
  // The directory sector that a valid footer names, or 0.
  uint64_t findFooterDirectory(const CVMDKSparseExtentHeader& header);
  void scanMarkers();
  void probeSlotDirectory();

  kx::P<kx::IIOStream> stream_;
  int64_t lengthBytes_;
  int64_t grainSizeSectors_;
  int64_t grainCount_;
  int64_t entriesPerTable_;
  int64_t tableCount_;
  uint64_t overheadSectors_;
  uint64_t descriptorEndSectors_;
  kx::CURI uri_;
  Source source_ = Source::HeaderDirectory;
  std::vector<uint32_t> directory_;
  kx::TMostRecentlyUsedCache<int64_t, kx::TBuffer<unsigned char>> tables_;
  // From the scan: (grain index, sector), by grain index, one per grain.
  std::vector<std::pair<int64_t, uint64_t>> scanned_;
  bool hasSlotDirectory_ = false;
};

// Grain maps by the normalized text of their file's URI, so that extent lines
// that name one file many times find its directory, or scan it, once.
using CVMDKForeignGrainMapCache = kx::TMostRecentlyUsedCache<std::string, CVMDKForeignGrainMap>;

}  // namespace zarn
