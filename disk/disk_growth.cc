#include "zarn/disk_growth.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "kx/data_stream.h"
#include "kx/error.h"
#include "zarn/extent_info.h"
#include "zarn/file_reference.h"
#include "zarn/format_constants.h"
#include "zarn/grain_directory.h"
#include "zarn/grain_table_cache.h"
#include "zarn/sparse_extent_header.h"

namespace zarn {

namespace {

// Where the header sector holds the capacity: behind magic, version and flags.
constexpr size_t kCapacityOffset = 4 + 4 + 4;

// What creation gives every table: the room of an extent file not made yet.
constexpr int32_t kNewTableEntryCount = kVMDKGrainTableEntryCount;

// The last extent of a disk as growth sees it: its line and, when its file
// exists, the file's header.
struct CLastExtent {
  kx::P<CVMDKExtentInfo> line;
  kx::CURI uri;
  kx::P<kx::IIOStream> stream;  // null for a file not made yet
  CVMDKSparseExtentHeader header;
  int64_t grainSizeSectors = 0;
  int32_t tableEntryCount = 0;
  int64_t capacitySectors = 0;  // what the tables are sized for
  int64_t roomSectors = 0;      // what they can cover
};

kx::CProps uriProps(const kx::CURI& uri) { return kx::CProps().add("uri", uri.toString(true)); }

CLastExtent inspectLastExtent(kx::IFileSystem* fileSystem, CVMDKDisk& disk, kx::IIOStream::Access access) {
  kx::TArray<kx::P<CVMDKExtentInfo>> lines;
  disk.getDescriptor()->getExtentEntries(lines);
  if (lines.empty()) throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK disk has no extents.", uriProps(disk.getMainFileURI()));
  CLastExtent extent;
  extent.line = lines.back();
  extent.uri = vmdkFileReferenceToURI(disk.getMainFileURI().getParent(), extent.line->getFilename());
  const int64_t lineSectors = extent.line->getSizeSectors();
  if (!fileSystem->fileExists(extent.uri)) {
    // An extent made at its first write gets tables for its line then.
    extent.grainSizeSectors = disk.getGrainSizeBytes() / kSectorSizeBytes;
    extent.tableEntryCount = kNewTableEntryCount;
    extent.capacitySectors = lineSectors;
  } else {
    int flags = 0;
    extent.stream = fileSystem->openFile(extent.uri, access, flags);
    verifyVMDKSparseExtentHeaderFits(*extent.stream);
    kx::CDataInStream in(*extent.stream);
    extent.header.load(in);
    extent.grainSizeSectors = static_cast<int64_t>(extent.header.getGrainSizeSectors());
    extent.tableEntryCount = static_cast<int32_t>(extent.header.getGrainTableEntryCount());
    const uint64_t capacity = extent.header.getCapacitySectors();
    // A header larger than its line is what a growth leaves that stopped
    // between the two.
    if (capacity < static_cast<uint64_t>(lineSectors) || capacity > static_cast<uint64_t>(INT64_MAX / kSectorSizeBytes) ||
        extent.grainSizeSectors < 1 || extent.grainSizeSectors > kVMDKMaxGrainSizeSectors ||
        extent.tableEntryCount < 1 || extent.tableEntryCount > kVMDKMaxGrainTableEntryCount) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK extent header doesn't agree with its extent line.",
                         uriProps(extent.uri)
                             .add("capacitySectors", capacity)
                             .add("lineSectors", lineSectors)
                             .add("grainSizeSectors", static_cast<uint64_t>(extent.grainSizeSectors)));
    }
    extent.capacitySectors = static_cast<int64_t>(capacity);
  }
  const int64_t tables = CVMDKGrainDirectory::calcExtentGrainTableCount(extent.capacitySectors, extent.grainSizeSectors,
                                                                        extent.tableEntryCount);
  const unsigned __int128 room = static_cast<unsigned __int128>(tables) *
                                 static_cast<unsigned __int128>(extent.tableEntryCount) *
                                 static_cast<unsigned __int128>(extent.grainSizeSectors);
  extent.roomSectors = static_cast<int64_t>(std::min<unsigned __int128>(room, INT64_MAX / kSectorSizeBytes));
  return extent;
}

int64_t calcLimitBytes(const CVMDKDisk& disk, const CLastExtent& extent) {
  const int64_t before = disk.getSizeBytes() / kSectorSizeBytes - extent.line->getSizeSectors();
  return std::min(before, INT64_MAX / kSectorSizeBytes - extent.roomSectors) * kSectorSizeBytes +
         extent.roomSectors * kSectorSizeBytes;
}

// Refuses grains of the grown range that the tables already give a slot: a
// writer never gives one beyond an extent's end, so such an entry is damage
// that would show up as content.
void verifyGrownRangeIsEmpty(const CLastExtent& extent, int64_t newCapacitySectors) {
  if (!extent.stream) return;
  const int64_t lineSectors = extent.line->getSizeSectors();
  auto cache = kx::create<CVMDKGrainTableCache>();
  auto directory = kx::create<CVMDKGrainDirectory>(
      extent.stream.get(), kx::IIOStream::ACCESS_READ,
      static_cast<int64_t>(extent.header.getGrainDirectoryOffsetSectors()),
      static_cast<int64_t>(extent.header.getRedundantGrainDirectoryOffsetSectors()), newCapacitySectors,
      extent.grainSizeSectors, extent.tableEntryCount, false, cache.get());
  const int64_t first = lineSectors / extent.grainSizeSectors;
  const int64_t end = CVMDKGrainDirectory::calcExtentGrainCount(newCapacitySectors, extent.grainSizeSectors);
  for (int64_t grain = first; grain < end; ++grain) {
    int64_t posSectors = 0;
    int64_t slotSectors = 0;
    directory->getGrainInfo(grain, posSectors, slotSectors);
    if (posSectors == 0) continue;
    // The tail of a stored grain that the old end cuts was never part of the
    // disk: what it holds would show up as content.
    if (grain * extent.grainSizeSectors < lineSectors) {
      throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                         "VMDK disk ends inside a written grain: it can only grow from a grain border.",
                         uriProps(extent.uri).add("grainIndex", grain).add("lineSectors", lineSectors));
    }
    throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK grain table has entries beyond the end of its extent.",
                       uriProps(extent.uri).add("grainIndex", grain).add("posSectors", posSectors));
  }
}

}  // namespace

int64_t calcVMDKDiskGrowthLimitBytes(kx::IFileSystem* fileSystem, CVMDKDisk& disk) {
  return calcLimitBytes(disk, inspectLastExtent(fileSystem, disk, kx::IIOStream::ACCESS_READ));
}

void growVMDKDisk(kx::IFileSystem* fileSystem, CVMDKDisk& disk, int64_t newSizeBytes) {
  const char* context = "growVMDKDisk";
  const int64_t oldSizeBytes = disk.getSizeBytes();
  if (newSizeBytes < oldSizeBytes) {
    throw kx::CInvalidArgError(context, "A VMDK disk doesn't shrink.",
                               kx::CProps().add("sizeBytes", oldSizeBytes).add("newSizeBytes", newSizeBytes));
  }
  if (newSizeBytes % kSectorSizeBytes != 0) {
    throw kx::CInvalidArgError(context, "A VMDK disk's size is a whole number of sectors.",
                               kx::CProps().add("newSizeBytes", newSizeBytes));
  }
  CLastExtent extent = inspectLastExtent(fileSystem, disk, kx::IIOStream::ACCESS_READ_WRITE);
  const int64_t limitBytes = calcLimitBytes(disk, extent);
  if (newSizeBytes > limitBytes) {
    throw kx::CInvalidArgError(
        context, "The VMDK disk can't grow this far: its last extent's grain tables have no room, and growth makes none.",
        kx::CProps().add("newSizeBytes", newSizeBytes).add("limitBytes", limitBytes));
  }
  if (newSizeBytes == oldSizeBytes) return;
  const int64_t newLineSectors = extent.line->getSizeSectors() + (newSizeBytes - oldSizeBytes) / kSectorSizeBytes;
  verifyGrownRangeIsEmpty(extent, newLineSectors);

  if (extent.stream) {
    const bool compressed = (extent.header.getFlags() & CVMDKSparseExtentHeader::kFlagCompressedGrains) != 0;
    const int64_t length = extent.stream->getLength();
    const int64_t footerAt = length - 2 * kSectorSizeBytes;
    if (compressed) {
      // The trail ends the file: footer marker, footer, end-of-stream marker.
      // Its footer repeats the header byte for byte, but for the capacity
      // when a growth stopped between the two.
      std::vector<unsigned char> head(kSectorSize), footer(kSectorSize);
      bool found = footerAt >= kSectorSizeBytes;
      if (found) {
        extent.stream->seek(0);
        extent.stream->read(head.data(), kSectorSize);
        extent.stream->seek(footerAt);
        extent.stream->read(footer.data(), kSectorSize);
        std::fill(head.begin() + kCapacityOffset, head.begin() + kCapacityOffset + 8, 0);
        std::fill(footer.begin() + kCapacityOffset, footer.begin() + kCapacityOffset + 8, 0);
        found = head == footer;
      }
      if (!found) {
        throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "VMDK compressed extent doesn't end with its footer.",
                           uriProps(extent.uri).add("length", length));
      }
    }
    extent.header.setCapacitySectors(static_cast<uint64_t>(newLineSectors));
    kx::CDataOutStream out(*extent.stream);
    extent.stream->seek(0);
    extent.header.store(out);
    if (compressed) {
      extent.stream->seek(footerAt);
      extent.header.store(out);
    }
    extent.stream->flush();
    extent.stream = nullptr;
  }
  extent.line->setSizeSectors(newLineSectors);
  const kx::P<CVMDKDescriptor> descriptor = disk.getDescriptor();
  if (descriptor->hasValue("ddb.geometry.cylinders")) {
    descriptor->setGeometryCylinders((newSizeBytes / kSectorSizeBytes + 16064) / 16065);
  }
  disk.storeDescriptor();
}

}  // namespace zarn
