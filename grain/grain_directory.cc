#include "zarn/grain_directory.h"

#include <algorithm>

#include "grain/byte_order.h"
#include "kx/error.h"
#include "kx/log.h"
#include "zarn/format_constants.h"
#include "zarn/markers.h"

namespace zarn {

int64_t CVMDKGrainDirectory::calcExtentGrainCount(int64_t capacitySectors, int64_t grainSizeSectors) {
  return capacitySectors / grainSizeSectors + (capacitySectors % grainSizeSectors != 0 ? 1 : 0);
}

int64_t CVMDKGrainDirectory::calcExtentGrainTableCount(int64_t capacitySectors, int64_t grainSizeSectors,
                                                       int32_t tableEntryCount) {
  const int64_t grains = calcExtentGrainCount(capacitySectors, grainSizeSectors);
  return grains / tableEntryCount + (grains % tableEntryCount != 0 ? 1 : 0);
}

CVMDKGrainDirectory::CVMDKGrainDirectory(kx::IIOStream* stream, kx::IIOStream::Access access,
                                         int64_t directoryPosSectors, int64_t redundantDirectoryPosSectors,
                                         int64_t capacitySectors, int64_t grainSizeSectors, int32_t tableEntryCount,
                                         bool requireSlotDirectory, CVMDKGrainTableCache* cache)
    : stream_(kx::P<kx::IIOStream>::share(stream)),
      access_(access),
      cache_(kx::P<CVMDKGrainTableCache>::share(cache)),
      directoryPosSectors_(directoryPosSectors),
      redundantDirectoryPosSectors_(redundantDirectoryPosSectors),
      grainSizeSectors_(grainSizeSectors),
      tableEntryCount_(tableEntryCount),
      requireSlotDirectory_(requireSlotDirectory),
      capacitySectors_(capacitySectors) {
  if (!stream_ || !cache_) throw kx::CError("Internal error: CVMDKGrainDirectory needs a stream and a cache.");
  if (grainSizeSectors_ < 1 || tableEntryCount_ < 1 || capacitySectors_ < 0) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Invalid VMDK grain geometry.",
                       uriProps()
                           .add("capacitySectors", capacitySectors_)
                           .add("grainSizeSectors", grainSizeSectors_)
                           .add("grainTableEntryCount", tableEntryCount_));
  }
  extentGrainCount_ = calcExtentGrainCount(capacitySectors_, grainSizeSectors_);
  tableCount_ = calcExtentGrainTableCount(capacitySectors_, grainSizeSectors_, tableEntryCount_);
  loadDirectory(directory_, directoryPosSectors_, "grain directory");
  if (redundantDirectoryPosSectors_ > 0) {
    loadDirectory(redundantDirectory_, redundantDirectoryPosSectors_, "redundant grain directory");
  }
  findSlotDirectory();
}

CVMDKGrainDirectory::~CVMDKGrainDirectory() {
  try {
    cache_->flushCachedTablesFromDirectoryToStream(this);
  } catch (const std::exception& error) {
    kx::onExceptionInDestructorIgnored("zarn::CVMDKGrainDirectory", error, true);
  }
  try {
    cache_->removeCachedTablesFromDirectory(this);
  } catch (const std::exception& error) {
    kx::onExceptionInDestructorIgnored("zarn::CVMDKGrainDirectory", error, true);
  }
}

kx::CProps CVMDKGrainDirectory::uriProps() const {
  return kx::CProps().add("uri", stream_->getURI().toString(true));
}

// The directory's words must lie in the file before they are read: a damaged
// capacity or offset must not buy an allocation beyond the file's own size.
void CVMDKGrainDirectory::loadDirectory(kx::TBuffer<uint32_t>& words, int64_t posSectors, const char* what) {
  const int64_t length = stream_->getLength();
  if (tableCount_ > length / 4 || !isWithinFile(posSectors, tableCount_ * 4, length)) {
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, kx::String::Format("VMDK %s lies beyond the end of the file.", what),
                       uriProps().add("posSectors", posSectors).add("tableCount", tableCount_));
  }
  words.setUsed(static_cast<size_t>(tableCount_));
  if (tableCount_ == 0) return;
  stream_->seek(posSectors * kSectorSizeBytes);
  stream_->read(words.getData(), static_cast<int>(tableCount_ * 4));
  swapLittleEndianWords(words.getData(), words.getUsed());
}

void CVMDKGrainDirectory::findSlotDirectory() {
  const int64_t directorySectors = (tableCount_ * 4 + kSectorSize - 1) / kSectorSize;
  int64_t markerSector;
  if (tableCount_ >= 1) {
    uint32_t last = directory_.getData()[tableCount_ - 1];
    if (!redundantDirectory_.isEmpty()) last = std::max(last, redundantDirectory_.getData()[tableCount_ - 1]);
    markerSector = int64_t{last} + (int64_t{tableEntryCount_} * 4 + kSectorSize - 1) / kSectorSize;
  } else {
    markerSector = std::max(directoryPosSectors_, redundantDirectoryPosSectors_) + 1;
  }

  slotDirectoryPosSectors_ = 0;
  // A file that ends before the marker has no slot directory; that is no error.
  if (isWithinFile(markerSector, kSectorSize, stream_->getLength())) {
    kx::TBuffer<unsigned char> sector(kSectorSize);
    stream_->seek(markerSector * kSectorSizeBytes);
    int64_t numSectors = 0;
    if (stream_->readLax(sector.getData(), kSectorSize) == kSectorSize &&
        isVMDKMarker(sector.getData(), MARKER_KX_SLOT_DIRECTORY, &numSectors)) {
      if (numSectors == directorySectors) {
        slotDirectoryPosSectors_ = markerSector + 1;
      } else {
        kx::logWarning(kx::String::Format(
                           "Found VMDK marker for kxSlotDirectory, but the slot directory size does not match the "
                           "expected value (actual: %lld, expected: %lld, uri: '",
                           static_cast<long long>(numSectors), static_cast<long long>(directorySectors)) +
                       stream_->getURI().toString(true) + "'). Ignoring the slot directory.");
      }
    }
  }
  if (slotDirectoryPosSectors_ < 1) {
    if (requireSlotDirectory_) throw kx::CError("Slot size directory not found in compressed VMDK.", "", -1, uriProps());
    return;
  }
  loadDirectory(slotDirectory_, slotDirectoryPosSectors_, "slot directory");
}

kx::P<CVMDKGrainTable> CVMDKGrainDirectory::getGrainTable(int64_t tableIndex) {
  if (tableIndex < 0 || tableIndex >= tableCount_) {
    throw kx::CInvalidArgError("CVMDKGrainDirectory::getGrainTable",
                               kx::String::Format("invalid table index: %lld", static_cast<long long>(tableIndex)),
                               uriProps());
  }
  kx::P<CVMDKGrainTable> table = cache_->getCachedTable(this, tableIndex);
  if (table) return table;

  // One pass over neighbouring tables: the first access to a region of the
  // disk is followed by accesses to its neighbours. A table still cached is
  // kept as it is, since it may hold changes the file doesn't have yet.
  const int64_t first = tableIndex & ~(kVMDKGrainTableBlockSize - 1);
  const int64_t end = std::min(first + kVMDKGrainTableBlockSize, tableCount_);
  for (int64_t i = first; i < end; ++i) {
    if (i != tableIndex && cache_->getCachedTable(this, i)) continue;
    const auto word = [&](const kx::TBuffer<uint32_t>& words) -> int64_t {
      return words.isEmpty() ? 0 : words.getData()[i];
    };
    kx::P<CVMDKGrainTable> loaded;
    try {
      loaded = kx::create<CVMDKGrainTable>(stream_.get(), access_, grainSizeSectors_, word(directory_),
                                           word(redundantDirectory_), word(slotDirectory_), tableEntryCount_);
    } catch (const kx::CError&) {
      // A damaged neighbour is reported when it is asked for, not here.
      if (i == tableIndex) throw;
      continue;
    }
    cache_->setCachedTable(this, i, loaded.get());
    if (i == tableIndex) table = loaded;
  }
  if (!table) {
    throw kx::CError(kx::String::Format("Internal error: CVMDKGrainDirectory::getGrainTable updated the cache, but "
                                        "did not encounter the requested table (requested index: %lld)",
                                        static_cast<long long>(tableIndex)));
  }
  return table;
}

void CVMDKGrainDirectory::getGrainInfo(int64_t grainIndex, int64_t& posSectors, int64_t& slotSizeSectors) {
  getGrainTable(grainIndex / tableEntryCount_)->getGrainInfo(grainIndex % tableEntryCount_, posSectors,
                                                             slotSizeSectors);
}

void CVMDKGrainDirectory::setGrainInfo(int64_t grainIndex, int64_t posSectors, int64_t slotSizeSectors) {
  getGrainTable(grainIndex / tableEntryCount_)->setGrainInfo(grainIndex % tableEntryCount_, posSectors,
                                                             slotSizeSectors);
}

void CVMDKGrainDirectory::verifyGrainInfo(int64_t grainIndex, int64_t posSectors, int64_t slotSizeSectors) {
  getGrainTable(grainIndex / tableEntryCount_)->verifyGrainInfo(grainIndex % tableEntryCount_, posSectors,
                                                                slotSizeSectors);
}

void CVMDKGrainDirectory::flushChangesToStream() { cache_->flushCachedTablesFromDirectoryToStream(this); }

void CVMDKGrainDirectory::appendMetadataAreas(std::vector<CVMDKFileArea>& areas) const {
  const int64_t directorySectors = (tableCount_ * 4 + kSectorSize - 1) / kSectorSize;
  const int64_t tableSectors = (int64_t{tableEntryCount_} * 4 + kSectorSize - 1) / kSectorSize;
  const int64_t slotTableSectors = (int64_t{tableEntryCount_} * 2 + kSectorSize - 1) / kSectorSize;
  const auto addDirectory = [&](const kx::TBuffer<uint32_t>& words, int64_t posSectors, const char* directory,
                                const char* table, int64_t sectorsPerTable) {
    if (words.isEmpty() && posSectors < 1) return;
    areas.push_back({posSectors, directorySectors, directory, -1});
    for (size_t i = 0; i < words.getUsed(); ++i) {
      if (words.getData()[i] != 0) {
        areas.push_back({int64_t{words.getData()[i]}, sectorsPerTable, table, static_cast<int64_t>(i)});
      }
    }
  };
  addDirectory(directory_, directoryPosSectors_, "grain directory", "grain table", tableSectors);
  if (redundantDirectoryPosSectors_ > 0) {
    addDirectory(redundantDirectory_, redundantDirectoryPosSectors_, "redundant grain directory",
                 "redundant grain table", tableSectors);
  }
  if (slotDirectoryPosSectors_ > 0) {
    addDirectory(slotDirectory_, slotDirectoryPosSectors_, "slot directory", "slot table", slotTableSectors);
  }
}

}  // namespace zarn
