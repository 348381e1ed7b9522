// CVMDKGrainDirectory: from a grain index of one sparse extent to the grain's
// slot, by way of the right grain table.
//
// It keeps the extent's directories in memory, finds the slot directory that
// this library writes behind the last grain table (a MARKER_KX_SLOT_DIRECTORY
// marker, then the words), and loads tables into the shared
// CVMDKGrainTableCache 32 at a time. Directory words never change once an
// extent file exists, so this class never writes them.
//
// Reference counting as for every kx::CBase; its address is part of the cache
// key, so it is never copied. One thread at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/error.h"
#include "kx/stream.h"
#include "zarn/grain_table.h"
#include "zarn/grain_table_cache.h"

namespace zarn {

// A run of sectors that a piece of an extent's metadata takes.
struct CVMDKFileArea {
  int64_t startSectors;
  int64_t sizeSectors;
  const char* what;  // "grain table", ...: for messages
  int64_t index;     // the table's index, -1 for a directory
};

class CVMDKGrainDirectory : public kx::CBase {
 public:
  // Loads the primary directory, the redundant one (when its offset is above
  // 0) and the slot directory, if one follows the last table. Takes
  // references on `stream` and `cache`. Raises kx::CIOError code 5 when the
  // geometry is unusable (grain size or entries per table below 1) or a
  // directory would reach beyond the end of the file, before anything is
  // allocated; "Slot size directory not found in compressed VMDK." (internal
  // kx::CError) when `requireSlotDirectory` is set and there is none; and
  // whatever the stream raises. A slot directory marker of the wrong size is
  // a warning, and the extent goes on without slot sizes.
  CVMDKGrainDirectory(kx::IIOStream* stream, kx::IIOStream::Access access, int64_t directoryPosSectors,
                      int64_t redundantDirectoryPosSectors, int64_t capacitySectors, int64_t grainSizeSectors,
                      int32_t tableEntryCount, bool requireSlotDirectory, CVMDKGrainTableCache* cache);
  // Flushes its cached tables, then drops them from the cache; errors go to
  // kx::onExceptionInDestructorIgnored, and the second step runs regardless.
  ~CVMDKGrainDirectory() override;
  CVMDKGrainDirectory(const CVMDKGrainDirectory&) = delete;
  CVMDKGrainDirectory& operator=(const CVMDKGrainDirectory&) = delete;

  // ceil(capacity / grain size), without overflow.
  static int64_t calcExtentGrainCount(int64_t capacitySectors, int64_t grainSizeSectors);
  // ceil(grain count / entries per table).
  static int64_t calcExtentGrainTableCount(int64_t capacitySectors, int64_t grainSizeSectors,
                                           int32_t tableEntryCount);

  // The table, from the cache or loaded with its block of up to 32 tables;
  // never null. A cached table, dirty or not, is never loaded again. Raises
  // kx::CInvalidArgError for an index outside the extent.
  kx::P<CVMDKGrainTable> getGrainTable(int64_t tableIndex);
  // By grain index within the extent; see CVMDKGrainTable.
  void getGrainInfo(int64_t grainIndex, int64_t& posSectors, int64_t& slotSizeSectors);
  void setGrainInfo(int64_t grainIndex, int64_t posSectors, int64_t slotSizeSectors);
  // Raises what setGrainInfo would raise, changing nothing.
  void verifyGrainInfo(int64_t grainIndex, int64_t posSectors, int64_t slotSizeSectors);

  bool getHaveSlotSizeInfo() const { return !slotDirectory_.isEmpty(); }
  int64_t getSlotDirectoryPosSectors() const { return slotDirectoryPosSectors_; }
  int64_t getGrainTableCount() const { return tableCount_; }

  // Writes this directory's dirty tables in the cache to the stream.
  void flushChangesToStream();

  // Appends the areas of the directories and of every table they name
  // (words of 0 name none), as the words stand; nothing is read.
  void appendMetadataAreas(std::vector<CVMDKFileArea>& areas) const;
  // The sector of table `tableIndex` (0: the file has none); the index must
  // be valid.
  int64_t getGrainTablePosSectors(int64_t tableIndex) const { return directory_.getData()[tableIndex]; }

 private:
  kx::CProps uriProps() const;
  void loadDirectory(kx::TBuffer<uint32_t>& words, int64_t posSectors, const char* what);
  void findSlotDirectory();

  kx::P<kx::IIOStream> stream_;
  kx::IIOStream::Access access_;
  kx::P<CVMDKGrainTableCache> cache_;
  int64_t directoryPosSectors_;
  int64_t redundantDirectoryPosSectors_;
  int64_t slotDirectoryPosSectors_ = 0;
  int64_t grainSizeSectors_;
  int32_t tableEntryCount_;
  bool requireSlotDirectory_;
  int64_t extentGrainCount_ = 0;
  int64_t tableCount_ = 0;
  kx::TBuffer<uint32_t> directory_;
  kx::TBuffer<uint32_t> redundantDirectory_;
  kx::TBuffer<uint32_t> slotDirectory_;
  int64_t capacitySectors_;
};

}  // namespace zarn
