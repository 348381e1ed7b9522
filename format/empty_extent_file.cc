#include "zarn/empty_extent_file.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "zarn/format_constants.h"
#include "kx/data_stream.h"
#include "kx/error.h"
#include "kx/log.h"
#include "zarn/descriptor.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/markers.h"
#include "zarn/sparse_extent_header.h"

namespace zarn {
namespace {

// Sectors of a marker and of the tables behind one.
constexpr int32_t kMarkerSectors = 1;
constexpr int32_t kGrainTableSectors = kVMDKGrainTableSizeBytes / kSectorSize;  // 4
constexpr int32_t kSlotTableSectors = kVMDKSlotTableSizeBytes / kSectorSize;    // 2

// vmdkWritePadding for runs that may exceed an int.
void writeZeros(kx::IOutStream& stream, int64_t size, const kx::TBuffer<unsigned char>& zeros) {
  while (size > 0) {
    const int piece = static_cast<int>(std::min<int64_t>(size, std::numeric_limits<int>::max() / 2));
    vmdkWritePadding(stream, piece, zeros);
    size -= piece;
  }
}

// Zeros that lie inside the file's length already (a new file is made at its
// full length first) are left as they are, so that a file system keeps them
// as holes; anywhere else they are written.
void skipZeros(kx::IOutStream& stream, int64_t size, const kx::TBuffer<unsigned char>& zeros) {
  const int64_t position = stream.getPosition();
  if (size > 0 && position + size <= stream.getLength()) {
    stream.seek(position + size);
  } else {
    writeZeros(stream, size, zeros);
  }
}

int32_t calcDirectorySectors(int32_t tableCount) { return (tableCount * 4 + kSectorSize - 1) / kSectorSize; }

// Writes a directory of `tableCount` words, word i being `firstTable + i *
// stride`, padded to its last sector, and checks that the stream then stands
// at `expectedEnd`. The words go out in one write.
void writeDirectory(kx::CDataOutStream& out, int32_t tableCount, int64_t firstTable, int32_t stride,
                    const kx::TBuffer<unsigned char>& zeros) {
  kx::IOutStream& stream = out.getStream();
  const int64_t expectedEnd = getStreamPositionVMDKSectors(stream) + calcDirectorySectors(tableCount);
  if (tableCount > 0) {
    kx::TBuffer<unsigned char> words(static_cast<size_t>(tableCount) * 4);
    for (int32_t i = 0; i < tableCount; ++i) {
      writeLE32(words.getData() + 4 * i, static_cast<uint32_t>(firstTable + static_cast<int64_t>(i) * stride));
    }
    stream.write(words.getData(), static_cast<int>(words.getUsed()), nullptr);
  }
  const int rest = static_cast<int>((kSectorSize - stream.getPosition() % kSectorSize) % kSectorSize);
  if (rest > 0) stream.write(zeros.getData(), rest, nullptr);
  const int64_t actualEnd = getStreamPositionVMDKSectors(stream);
  if (actualEnd != expectedEnd) {
    throw kx::CError(kx::String::Format(
        "Internal error. Stream position after writing VMDK grain directories is not the expected on (expected: "
        "%lld sectors, actual: %lld sectors)",
        static_cast<long long>(expectedEnd), static_cast<long long>(actualEnd)));
  }
}

// What the fields of a new file can hold. Directory words and grain
// positions are 32-bit sector numbers, and the trail of a compressed extent
// lies behind the head; a compressed grain's slot size is a 16-bit count of
// sectors; a grain moves through the streams in one call, whose size is an
// int.
constexpr int64_t kMaxSectorNumber = 0xFFFFFFFF;
constexpr int64_t kMaxSlotSectors = 0xFFFF;
constexpr int64_t kMaxGrainSizeSectors = std::numeric_limits<int>::max() / kSectorSize;

[[noreturn]] void throwLayoutError(const char* message, kx::CProps props) {
  throw kx::CInvalidArgError("createEmptyVMDKSparseExtentFile", message, props);
}

// Refuses, before any file exists, every argument whose file could not be
// written or whose numbers its own fields could not hold. Arithmetic stays
// far from 64 bits: the grain size and the capacity are bounded first.
void checkLayout(bool compressed, int64_t grainCount, int64_t grainSizeSectors,
                 const kx::TBuffer<unsigned char>& zeros, const CVMDKDescriptor* descriptor,
                 int64_t descriptorSizeSectors, const kx::TBuffer<unsigned char>& keyHash) {
  if (grainCount < 0 || grainSizeSectors < 1 || zeros.getUsed() < static_cast<size_t>(kSectorSize) ||
      (compressed && grainCount == 0) || (descriptor && descriptorSizeSectors < 0)) {
    throwLayoutError("Invalid arguments for a new VMDK extent file",
                     kx::CProps()
                         .add("grainCount", grainCount)
                         .add("grainSizeSectors", grainSizeSectors)
                         .add("zerosSize", static_cast<uint64_t>(zeros.getUsed()))
                         .add("compressed", compressed ? "true" : "false"));
  }
  if (grainSizeSectors > (compressed ? kMaxSlotSectors : kMaxGrainSizeSectors)) {
    throwLayoutError("VMDK grain size too large", kx::CProps().add("grainSizeSectors", grainSizeSectors));
  }
  if (grainCount > INT64_MAX / kSectorSizeBytes / grainSizeSectors) {
    throwLayoutError("VMDK extent capacity too large",
                     kx::CProps().add("grainCount", grainCount).add("grainSizeSectors", grainSizeSectors));
  }
  const int64_t descriptorSectors = descriptor ? descriptorSizeSectors : 0;
  if (descriptorSectors * kSectorSizeBytes > kVMDKMaxDescriptorSizeBytes) {
    throwLayoutError("VMDK descriptor area too large",
                     kx::CProps().add("descriptorSizeSectors", descriptorSectors));
  }
  if (keyHash.getUsed() > static_cast<size_t>(CVMDKSparseExtentHeader::kMaxKeyHashSize)) {
    throwLayoutError("VMDK key hash too long",
                     kx::CProps().add("keyHashSize", static_cast<uint64_t>(keyHash.getUsed())));
  }
  const int64_t tables = (grainCount + kVMDKGrainTableEntryCount - 1) / kVMDKGrainTableEntryCount;
  const int64_t directorySectors = (tables * 4 + kSectorSize - 1) / kSectorSize;
  const int64_t headSectors = compressed ? 4 + descriptorSectors + 3 * directorySectors + 13 * tables
                                         : 1 + descriptorSectors + 2 * directorySectors + 8 * tables;
  const int64_t overheadSectors = (headSectors + grainSizeSectors - 1) / grainSizeSectors * grainSizeSectors;
  if (overheadSectors + (compressed ? kVMDKTrailSectors : 0) > kMaxSectorNumber) {
    throwLayoutError("VMDK extent metadata too large",
                     kx::CProps().add("grainCount", grainCount).add("grainSizeSectors", grainSizeSectors));
  }
}

int32_t narrowTableCount(int64_t tableCount) {
  if (tableCount < 0 || tableCount > std::numeric_limits<int32_t>::max() / 4) {
    throw kx::CInvalidArgError("writeEmptyVMDKGrainDirectoryAndTables", "Invalid VMDK grain table count",
                               kx::CProps().add("tableCount", tableCount));
  }
  return static_cast<int32_t>(tableCount);
}

void writeEmptyFile(kx::IFileSystem* fileSystem, const kx::CURI& uri, bool compressed, int64_t grainCount,
                    int64_t grainSizeSectors, const kx::TBuffer<unsigned char>& zeros, CVMDKDescriptor* descriptor,
                    int64_t descriptorSizeSectors, const kx::TBuffer<unsigned char>& keyHash) {
  kx::P<kx::IIOStream> stream = openVMDKFileStream(fileSystem, uri, kx::IIOStream::ACCESS_READ_WRITE);
  kx::CDataOutStream out(*stream);
  CVMDKSparseExtentHeader header;

  header.setVersion(compressed ? 3 : 1);
  header.setCompressAlgorithm(compressed ? CVMDKSparseExtentHeader::kCompressDeflate
                                         : CVMDKSparseExtentHeader::kCompressNone);
  uint32_t flags = CVMDKSparseExtentHeader::kFlagValidNewLineDetection |
                   CVMDKSparseExtentHeader::kFlagUseRedundantGrainDirectory;
  if (compressed) flags |= CVMDKSparseExtentHeader::kFlagCompressedGrains | CVMDKSparseExtentHeader::kFlagHasMarkers;
  header.setFlags(flags);
  header.setCapacitySectors(static_cast<uint64_t>(grainCount * grainSizeSectors));
  header.setGrainSizeSectors(static_cast<uint64_t>(grainSizeSectors));
  header.setGrainTableEntryCount(kVMDKGrainTableEntryCount);
  if (!keyHash.isEmpty()) {
    header.setEncryptionExtensionEnabled(true);
    header.setEncryptionAlgorthm(CVMDKSparseExtentHeader::kEncryptionAES256CBC);
    header.setEncryptionKeyHashAlgorthm(CVMDKSparseExtentHeader::kKeyHashSHA256);
    header.setEncryptionKeyHash(keyHash);
  }

  // The file takes its full length at once: what stays zero is never
  // written. The header goes last, once its offsets are known.
  const int64_t tableCount64 = (grainCount + kVMDKGrainTableEntryCount - 1) / kVMDKGrainTableEntryCount;
  const int64_t directorySectors64 = (tableCount64 * 4 + kSectorSize - 1) / kSectorSize;
  const int64_t descriptorSectors64 = descriptor ? descriptorSizeSectors : 0;
  const int64_t headSectors = compressed ? 4 + descriptorSectors64 + 3 * directorySectors64 + 13 * tableCount64
                                         : 1 + descriptorSectors64 + 2 * directorySectors64 + 8 * tableCount64;
  const int64_t finalSectors = (headSectors + grainSizeSectors - 1) / grainSizeSectors * grainSizeSectors +
                               (compressed ? kVMDKTrailSectors : 0);
  // Cut to nothing first: bytes an old file left must not stand in for zeros.
  stream->setLength(0);
  stream->setLength(finalSectors * kSectorSize);
  stream->seek(kSectorSize);

  if (descriptor) {
    header.setDescriptorOffsetSectors(static_cast<uint64_t>(getStreamPositionVMDKSectors(*stream)));
    header.setDescriptorSizeSectors(static_cast<uint64_t>(descriptorSizeSectors));
    descriptor->store(*stream, static_cast<int>(descriptorSizeSectors * kSectorSize), zeros);
  }

  const int32_t tableCount =
      static_cast<int32_t>((grainCount + kVMDKGrainTableEntryCount - 1) / kVMDKGrainTableEntryCount);
  const int32_t directorySectors = calcDirectorySectors(tableCount);

  if (compressed) writeVMDKMarker(out, MARKER_GD, directorySectors, zeros);
  header.setRedundantGrainDirectoryOffsetSectors(static_cast<uint64_t>(getStreamPositionVMDKSectors(*stream)));
  writeEmptyVMDKGrainDirectoryAndTables(out, tableCount, zeros, compressed);

  if (compressed) writeVMDKMarker(out, MARKER_GD, directorySectors, zeros);
  header.setGrainDirectoryOffsetSectors(static_cast<uint64_t>(getStreamPositionVMDKSectors(*stream)));
  writeEmptyVMDKGrainDirectoryAndTables(out, tableCount, zeros, compressed);

  if (compressed) writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(out, tableCount, zeros);

  const int64_t grainSizeBytes = grainSizeSectors * kSectorSize;
  const int64_t rest = (grainSizeBytes - stream->getPosition() % grainSizeBytes) % grainSizeBytes;
  skipZeros(*stream, rest, zeros);

  const int64_t overheadSectors = getStreamPositionVMDKSectors(*stream);
  header.setOverheadSectors(static_cast<uint64_t>(overheadSectors));

  if (compressed) {
    writeVMDKMarker(out, MARKER_FOOTER, 1, zeros);
    header.store(out);
    writeVMDKMarker(out, MARKER_EOS, 0, zeros);
  }

  // The header that names the metadata goes last: a file whose making was
  // cut short never looks finished.
  stream->seek(0);
  header.store(out);
  // The stream would write back in its destructor too, but there a failure
  // could only be logged; flushing here lets it reach the caller.
  stream->flush();
}

}  // namespace


void writeEmptyVMDKGrainDirectoryAndTables(kx::CDataOutStream& out, int64_t tableCount,
                                           const kx::TBuffer<unsigned char>& zeros, bool withMarkers) {
  const int32_t count = narrowTableCount(tableCount);
  kx::IOutStream& stream = out.getStream();
  const int64_t first = getStreamPositionVMDKSectors(stream) + calcDirectorySectors(count);
  if (withMarkers) {
    writeDirectory(out, count, first + kMarkerSectors, kMarkerSectors + kGrainTableSectors, zeros);
    for (int32_t i = 0; i < count; ++i) {
      writeVMDKMarker(out, MARKER_GT, kGrainTableSectors, zeros);
      vmdkWritePadding(stream, kVMDKGrainTableSizeBytes, zeros);
    }
  } else {
    writeDirectory(out, count, first, kGrainTableSectors, zeros);
    // The tables are one run of zeros.
    skipZeros(stream, static_cast<int64_t>(count) * kVMDKGrainTableSizeBytes, zeros);
  }
}

void writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(kx::CDataOutStream& out, int64_t tableCount,
                                                                   const kx::TBuffer<unsigned char>& zeros) {
  const int32_t count = narrowTableCount(tableCount);
  const int32_t directorySectors = calcDirectorySectors(count);
  writeVMDKMarker(out, MARKER_KX_SLOT_DIRECTORY, directorySectors, zeros);
  const int64_t first = getStreamPositionVMDKSectors(out.getStream()) + directorySectors;
  writeDirectory(out, count, first + kMarkerSectors, kMarkerSectors + kSlotTableSectors, zeros);
  for (int32_t i = 0; i < count; ++i) {
    writeVMDKMarker(out, MARKER_KX_SLOT_TABLE, kSlotTableSectors, zeros);
    vmdkWritePadding(out.getStream(), kVMDKSlotTableSizeBytes, zeros);
  }
}

void createEmptyVMDKSparseExtentFile(kx::IFileSystem* fileSystem, const kx::CURI& uri, bool compressed,
                                     int64_t grainCount, int64_t grainSizeSectors,
                                     const kx::TBuffer<unsigned char>& zeros, CVMDKDescriptor* descriptor,
                                     int64_t descriptorSizeSectors, const kx::TBuffer<unsigned char>& keyHash) {
  checkLayout(compressed, grainCount, grainSizeSectors, zeros, descriptor, descriptorSizeSectors, keyHash);
  try {
    writeEmptyFile(fileSystem, uri, compressed, grainCount, grainSizeSectors, zeros, descriptor,
                   descriptorSizeSectors, keyHash);
  } catch (const std::exception& error) {
    kx::logError(error, kx::String("Error in CVMDKDisk::createEmptySparseExtentFile ('") + uri.toString(true) +
                            "'). Deleting file and letting error through.");
    try {
      fileSystem->deleteFile(uri, true);
    } catch (const std::exception& error2) {
      kx::logError(error2, "Error deleting half-finished extent file. Ignoring.");
    }
    throw;
  }
}

}  // namespace zarn
