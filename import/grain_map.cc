#include "import/grain_map.h"

#include <algorithm>
#include <cstring>

#include "kx/buffer_stream.h"
#include "kx/data_stream.h"
#include "kx/error.h"
#include "kx/log.h"
#include "zarn/format_constants.h"
#include "zarn/markers.h"

namespace zarn {
namespace {

// A header's directory offset when the directory follows the grains.
constexpr uint64_t kDirectoryAtEnd = ~uint64_t{0};
// Directories are read in pieces of this size, whatever the file claims.
constexpr int64_t kReadPieceBytes = 1 << 20;

// Whether `bytes` bytes from sector `sector` lie in a file of `length` bytes.
bool liesInFile(uint64_t sector, int64_t bytes, int64_t length) {
  int64_t start = 0;
  return tryVMDKSectorsToBytes(sector, start) && start <= length && bytes <= length - start;
}

bool isZeroSector(const unsigned char* sector) {
  for (int i = 0; i < kSectorSize; ++i) {
    if (sector[i] != 0) return false;
  }
  return true;
}

bool isKnownMarker(uint32_t type) {
  switch (type) {
    case MARKER_GT:
    case MARKER_GD:
    case MARKER_FOOTER:
    case MARKER_KX_SLOT_TABLE:
    case MARKER_KX_SLOT_DIRECTORY:
      return true;
    default:
      return false;
  }
}

}  // namespace

CVMDKForeignGrainMap::CVMDKForeignGrainMap(kx::IIOStream* stream, const CVMDKSparseExtentHeader& header,
                                           bool compressed)
    : stream_(kx::P<kx::IIOStream>::share(stream)),
      lengthBytes_(stream->getLength()),
      grainSizeSectors_(static_cast<int64_t>(header.getGrainSizeSectors())),
      entriesPerTable_(header.getGrainTableEntryCount()),
      overheadSectors_(header.getOverheadSectors()),
      uri_(stream->getURI()),
      tables_(kTableCacheLimit) {
  const auto capacity = static_cast<int64_t>(header.getCapacitySectors());
  grainCount_ = capacity / grainSizeSectors_ + (capacity % grainSizeSectors_ != 0 ? 1 : 0);
  tableCount_ = grainCount_ / entriesPerTable_ + (grainCount_ % entriesPerTable_ != 0 ? 1 : 0);
  const uint64_t descriptorOffset = header.getDescriptorOffsetSectors();
  const uint64_t descriptorSize = header.getDescriptorSizeSectors();
  descriptorEndSectors_ = descriptorOffset <= kDirectoryAtEnd - descriptorSize ? descriptorOffset + descriptorSize : 0;

  uint64_t directory = header.getGrainDirectoryOffsetSectors();
  if (!compressed) {
    if (directory == 0 || directory == kDirectoryAtEnd) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK file has no grain directory.",
                         uriProps().add("posSectors", directory));
    }
    if (!tryLoadDirectory(directory)) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK grain directory lies beyond the end of the file.",
                         uriProps().add("posSectors", directory).add("tableCount", tableCount_));
    }
    return;
  }
  // A directory at sector 0 would be the header itself: no writer puts it
  // there, and it is as good as none.
  if (directory != 0 && directory != kDirectoryAtEnd && tryLoadDirectory(directory)) {
    probeSlotDirectory();
    return;
  }
  directory = findFooterDirectory(header);
  if (directory != 0 && tryLoadDirectory(directory)) {
    source_ = Source::FooterDirectory;
    probeSlotDirectory();
    return;
  }
  scanMarkers();
}

CVMDKForeignGrainMap::~CVMDKForeignGrainMap() = default;

kx::CProps CVMDKForeignGrainMap::uriProps() const { return kx::CProps().add("uri", uri_.toString(true)); }

bool CVMDKForeignGrainMap::tryLoadDirectory(uint64_t sector) {
  if (tableCount_ > lengthBytes_ / 4 || !liesInFile(sector, tableCount_ * 4, lengthBytes_)) return false;
  directory_.assign(static_cast<size_t>(tableCount_), 0);
  kx::TBuffer<unsigned char> piece(static_cast<size_t>(std::min(tableCount_ * 4, kReadPieceBytes)));
  stream_->seek(static_cast<int64_t>(sector) * kSectorSizeBytes);
  for (int64_t done = 0; done < tableCount_;) {
    const int64_t words = std::min(tableCount_ - done, kReadPieceBytes / 4);
    stream_->read(piece.getData(), static_cast<int>(words * 4));
    for (int64_t i = 0; i < words; ++i) directory_[static_cast<size_t>(done + i)] = readLE32(piece.getData() + i * 4);
    done += words;
  }
  return true;
}

// The end of a finished file: footer marker, footer, end-of-stream marker
// (an all-zero sector), and perhaps zero sectors that a writer added to round
// the file up. So the footer is the last sector that isn't all zeros.
uint64_t CVMDKForeignGrainMap::findFooterDirectory(const CVMDKSparseExtentHeader& header) {
  const int64_t sectors = lengthBytes_ / kSectorSizeBytes;
  if (sectors < 3) return 0;
  const int64_t window = std::min(sectors, kMaxTailPaddingSectors + 3);
  kx::TBuffer<unsigned char> tail(static_cast<size_t>(window * kSectorSizeBytes));
  stream_->seek((sectors - window) * kSectorSizeBytes);
  stream_->read(tail.getData(), static_cast<int>(tail.getUsed()));
  int64_t footer = window - 1;
  while (footer >= 0 && isZeroSector(tail.getData() + footer * kSectorSizeBytes)) --footer;
  if (footer < 1 || footer + 1 >= window) return 0;
  int64_t markerSectors = 0;
  if (!isVMDKMarker(tail.getData() + (footer - 1) * kSectorSizeBytes, MARKER_FOOTER, &markerSectors) ||
      markerSectors != 1) {
    return 0;
  }
  auto bytes = kx::create<kx::TBuffer<unsigned char>>();
  bytes->assign(tail.getData() + footer * kSectorSizeBytes, kSectorSize);
  auto sectorStream = kx::create<kx::CBufferStream>(bytes, 2.0);
  kx::CDataInStream in(*sectorStream);
  CVMDKSparseExtentHeader copy;
  try {
    copy.load(in);
  } catch (const kx::CError&) {
    return 0;
  }
  // A footer that describes another extent is no footer of this one.
  if (copy.getCapacitySectors() != header.getCapacitySectors() ||
      copy.getGrainSizeSectors() != header.getGrainSizeSectors() ||
      copy.getGrainTableEntryCount() != header.getGrainTableEntryCount() ||
      copy.getGrainDirectoryOffsetSectors() == kDirectoryAtEnd) {
    return 0;
  }
  return copy.getGrainDirectoryOffsetSectors();
}

// Grains and markers follow each other from the end of the head on; the
// first thing that is neither, or that doesn't fit the file, ends the scan,
// and what came before it is kept.
void CVMDKForeignGrainMap::scanMarkers() {
  source_ = Source::MarkerScan;
  const int64_t fileSectors = (lengthBytes_ + kSectorSizeBytes - 1) / kSectorSizeBytes;
  uint64_t start = 1;
  if (overheadSectors_ >= 1 && overheadSectors_ < static_cast<uint64_t>(fileSectors)) {
    start = overheadSectors_;
  } else if (descriptorEndSectors_ >= 1 && descriptorEndSectors_ < static_cast<uint64_t>(fileSectors)) {
    start = descriptorEndSectors_;
  }
  const int64_t maxCompressedBytes = grainSizeSectors_ * kSectorSizeBytes * kMaxCompressedPerGrainByte + kSectorSize;
  unsigned char sector[kSectorSize];
  const char* stop = "the end of the file";
  auto at = static_cast<int64_t>(start);
  while (at < fileSectors) {
    const int64_t position = at * kSectorSizeBytes;
    const int available = static_cast<int>(std::min<int64_t>(kSectorSize, lengthBytes_ - position));
    std::memset(sector, 0, sizeof sector);
    stream_->seek(position);
    stream_->read(sector, available);
    if (available < kVMDKMarkerFieldsSize) {
      stop = "a sector cut short";
      break;
    }
    const uint64_t lbaOrCount = readLE64(sector);
    const uint32_t size = readLE32(sector + 8);
    if (size != 0) {
      if (size > maxCompressedBytes) {
        stop = "a grain marker with an impossible size";
        break;
      }
      if (kVMDKGrainHeaderSize + int64_t{size} > lengthBytes_ - position) {
        stop = "a grain cut short";
        break;
      }
      if (lbaOrCount % static_cast<uint64_t>(grainSizeSectors_) != 0 ||
          lbaOrCount / static_cast<uint64_t>(grainSizeSectors_) >= static_cast<uint64_t>(grainCount_)) {
        stop = "a grain marker with an address beyond the extent";
        break;
      }
      scanned_.emplace_back(static_cast<int64_t>(lbaOrCount / static_cast<uint64_t>(grainSizeSectors_)), at);
      at += (kVMDKGrainHeaderSize + int64_t{size} + kSectorSize - 1) / kSectorSize;
      continue;
    }
    const uint32_t type = readLE32(sector + 12);
    if (available < kSectorSize || !isVMDKMarker(sector, static_cast<VMDKMarkerID>(type), nullptr)) {
      stop = "a sector that is neither a grain nor a marker";
      break;
    }
    if (type == MARKER_EOS) {
      stop = "the end-of-stream marker";
      break;
    }
    const auto count = static_cast<int64_t>(lbaOrCount);
    if (!isKnownMarker(type)) {
      stop = "a marker of unknown type";
      break;
    }
    if (count < 0 || count > fileSectors - at - 1) {
      stop = "a marker whose metadata runs past the end of the file";
      break;
    }
    at += 1 + count;
  }
  // By grain, and of several markers of one grain the last in the file.
  std::stable_sort(scanned_.begin(), scanned_.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  size_t kept = 0;
  for (size_t i = 0; i < scanned_.size(); ++i) {
    if (kept > 0 && scanned_[kept - 1].first == scanned_[i].first) {
      scanned_[kept - 1] = scanned_[i];
    } else {
      scanned_[kept++] = scanned_[i];
    }
  }
  scanned_.resize(kept);
  scanned_.shrink_to_fit();
  kx::logWarning(kx::String::Format("VMDK compressed extent has no usable grain directory or footer; read %llu "
                                    "grains found by one scan of its markers from sector %llu, which ended at "
                                    "sector %lld at ",
                                    static_cast<unsigned long long>(scanned_.size()),
                                    static_cast<unsigned long long>(start), static_cast<long long>(at)) +
                 stop + " (uri: '" + uri_.toString(true) + "').");
}

void CVMDKForeignGrainMap::probeSlotDirectory() {
  if (directory_.empty() || directory_.back() == 0) return;
  const uint64_t marker = uint64_t{directory_.back()} + (entriesPerTable_ * 4 + kSectorSize - 1) / kSectorSize;
  if (!liesInFile(marker, kSectorSize, lengthBytes_)) return;
  unsigned char sector[kSectorSize];
  stream_->seek(static_cast<int64_t>(marker) * kSectorSizeBytes);
  stream_->read(sector, kSectorSize);
  hasSlotDirectory_ = isVMDKMarker(sector, MARKER_KX_SLOT_DIRECTORY, nullptr);
}

uint64_t CVMDKForeignGrainMap::getEntry(int64_t grainIndex) {
  if (source_ == Source::MarkerScan) {
    const auto found = std::lower_bound(scanned_.begin(), scanned_.end(), grainIndex,
                                        [](const auto& entry, int64_t index) { return entry.first < index; });
    return found != scanned_.end() && found->first == grainIndex ? found->second : kEntryAbsent;
  }
  const int64_t tableIndex = grainIndex / entriesPerTable_;
  const uint32_t tableSector = directory_[static_cast<size_t>(tableIndex)];
  if (tableSector == 0) return kEntryAbsent;
  kx::P<kx::TBuffer<unsigned char>> table = tables_.get(tableIndex);
  if (!table) {
    const int64_t bytes = entriesPerTable_ * 4;
    if (!liesInFile(tableSector, bytes, lengthBytes_)) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK grain table lies beyond the end of the file.",
                         uriProps().add("tableIndex", tableIndex).add("posSectors", tableSector));
    }
    table = kx::create<kx::TBuffer<unsigned char>>(static_cast<size_t>(bytes));
    stream_->seek(int64_t{tableSector} * kSectorSizeBytes);
    stream_->read(table->getData(), static_cast<int>(bytes));
    tables_.set(tableIndex, table);
  }
  return readLE32(table->getData() + (grainIndex % entriesPerTable_) * 4);
}

}  // namespace zarn
