// CVMDKGrainTable: the in-memory image of one grain table of a sparse extent.
//
// For each grain the table covers it holds the sector where the grain's slot
// begins (0: no slot), and, where the extent keeps slot tables, the slot's
// size in sectors. It is the only place where a table entry is read or
// changed. A table writes itself back, to its primary place, to its redundant
// copy and to its slot table, when flushed and when its last reference goes.
//
// Crash order. A grain's slot reaches the file before any table points at it
// (the extent flushes the stream in between, see CVMDKSparseExtentFile). The
// table then goes out in the order primary copy, redundant copy, slot table,
// each written whole. So a writer that stops at any point leaves each entry
// either old or new, and the one mixed state is a new position with the old
// slot size (0 for a new grain, the size of the slot it left for a moved
// one). The grain reads such an entry when the stored form's header names the
// grain, and a later rewrite of it moves it to a new slot, so a stale size
// never lets a write reach beyond the slot that was really given. The
// redundant copy is never read back.
//
// Reference counting: a new table starts with one reference like every
// kx::CBase. The grain directory makes tables and hands them to the shared
// CVMDKGrainTableCache, which keeps them alive. One thread at a time.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/error.h"
#include "kx/stream.h"

namespace zarn {

class CVMDKGrainTable : public kx::CBase {
 public:
  // Loads `entryCount` entries from sector `posSectors`, and the slot table
  // from `slotTablePosSectors` if that is 1 or more. `redundantPosSectors` of
  // 0 or less means no redundant copy. A `posSectors` of 0 stands for a table
  // that the file doesn't have: all its grains are unallocated, and it can't
  // take a slot. Raises kx::CIOError code 5 when a table would reach beyond
  // the end of the file (nothing is allocated then), and whatever the stream
  // raises. A failure leaves no object.
  CVMDKGrainTable(kx::IIOStream* stream, kx::IIOStream::Access access, int64_t grainSizeSectors,
                  int64_t posSectors, int64_t redundantPosSectors, int64_t slotTablePosSectors, int32_t entryCount);
  // flushWithStream; a failure goes to kx::onExceptionInDestructorIgnored.
  ~CVMDKGrainTable() override;
  CVMDKGrainTable(const CVMDKGrainTable&) = delete;
  CVMDKGrainTable& operator=(const CVMDKGrainTable&) = delete;

  // The slot of grain `index` of this table: 0 and 0 when it has none.
  // Raises kx::CInvalidArgError for an index outside the table.
  void getGrainInfo(int64_t index, int64_t& posSectors, int64_t& slotSizeSectors) const;
  // Records a slot in memory only. Checks, in this order: the index, a slot
  // size other than the grain size in a table without slot sizes, a slot size
  // below 1 (kx::CInvalidArgError each), write access (internal kx::CError).
  // A position beyond 32 bits raises kx::CIOError code 3 and a slot size
  // beyond 16 bits kx::CInvalidArgError: the file can't hold them. Storing
  // what is there already changes nothing.
  void setGrainInfo(int64_t index, int64_t posSectors, int64_t slotSizeSectors);
  // Raises what setGrainInfo would raise for these values, and changes
  // nothing: an allocation asks before it writes a grain's data.
  void verifyGrainInfo(int64_t index, int64_t posSectors, int64_t slotSizeSectors) const;

  bool getSlotSizeTrackingEnabled() const { return !slotSizes_.isEmpty(); }
  bool hasUnflushedChanges() const { return entriesDirty_ || slotSizesDirty_; }

  // Writes the dirty parts: the entries to the primary place and then to the
  // redundant one, then the slot table. A failed step stays dirty, so a later
  // flush writes it again. Doesn't flush the stream.
  void flushChangesToStream();
  // When dirty: flushes the stream, so the grains the table points at are in
  // the file first, then writes the table. How a table that leaves the cache
  // is written.
  void flushWithStream();

 private:
  kx::CProps uriProps() const;

  kx::P<kx::IIOStream> stream_;
  kx::IIOStream::Access access_;
  int64_t grainSizeSectors_;
  int64_t posSectors_;
  int64_t redundantPosSectors_;
  int64_t slotTablePosSectors_;
  int32_t entryCount_;
  kx::TBuffer<uint32_t> entries_;
  bool entriesDirty_ = false;
  kx::TBuffer<uint16_t> slotSizes_;
  bool slotSizesDirty_ = false;
};

}  // namespace zarn
