// The numbers of the on-disk format, in one place, and the little-endian
// packing of words in memory. The layouts are described in doc/format.md.
#pragma once

#include <cstdint>

#include "kx/data_stream.h"

namespace zarn {

// Every offset in a sparse extent file counts these.
constexpr int kSectorSize = 512;
constexpr int64_t kSectorSizeBytes = kSectorSize;

// "parentCID" of a disk without a parent; never drawn as a content ID.
constexpr uint32_t kNoParentContentID = 0xFFFFFFFF;

// A new extent's grain tables have 512 entries of 32-bit sector words (4
// sectors); its slot tables 512 entries of 16-bit slot sizes (2 sectors).
constexpr int kVMDKGrainTableEntryCount = 512;
constexpr int kVMDKGrainTableSizeBytes = kVMDKGrainTableEntryCount * 4;
constexpr int kVMDKSlotTableSizeBytes = kVMDKGrainTableEntryCount * 2;

// The most entries a grain table of a file may have: 16 KiB of table, 32 times
// what every writer uses, so that a full cache stays within 24 MiB.
constexpr int64_t kVMDKMaxGrainTableEntryCount = 4096;

// Head of a stored compressed grain: lba (8) + compressed size (4).
constexpr int kVMDKGrainHeaderSize = 8 + 4;

// End of a compressed extent: footer marker + footer (a header copy) + end-of-stream marker.
constexpr int kVMDKTrailSectors = 3;
constexpr int kVMDKTrailSize = kVMDKTrailSectors * kSectorSize;  // 1536

// The largest grain this library handles: 32 MiB. A grain and its worst-case
// compressed form must fit the 32-bit sizes of reads, writes and compressors.
constexpr int64_t kVMDKMaxGrainSizeSectors = 65536;

// The largest descriptor area, and the largest descriptor file, that is read.
constexpr int64_t kVMDKMaxDescriptorSizeBytes = 0x500000;  // 5 MiB

// Grain tables are loaded from the file this many at a time.
constexpr int64_t kVMDKGrainTableBlockSize = 32;

// A sector number or count read from a file, in bytes. False when the bytes
// would not fit a signed 64-bit position: such a value lies beyond any file,
// and multiplying it out would wrap to a small, plausible one.
constexpr bool tryVMDKSectorsToBytes(uint64_t sectors, int64_t& bytes) {
  if (sectors > static_cast<uint64_t>(INT64_MAX / kSectorSizeBytes)) return false;
  bytes = static_cast<int64_t>(sectors) * kSectorSizeBytes;
  return true;
}

// Little-endian words in memory; the packing itself lives in kx.
inline uint16_t readLE16(const unsigned char* p) { return static_cast<uint16_t>(kx::loadLittleEndian(p, 2)); }
inline uint32_t readLE32(const unsigned char* p) { return static_cast<uint32_t>(kx::loadLittleEndian(p, 4)); }
inline uint64_t readLE64(const unsigned char* p) { return kx::loadLittleEndian(p, 8); }
inline void writeLE16(unsigned char* p, uint16_t value) { kx::storeLittleEndian(p, value, 2); }
inline void writeLE32(unsigned char* p, uint32_t value) { kx::storeLittleEndian(p, value, 4); }
inline void writeLE64(unsigned char* p, uint64_t value) { kx::storeLittleEndian(p, value, 8); }

}  // namespace zarn
