// Sparse extent files in the layouts of other tools, built in memory from
// plain bytes, with the places of their parts, so that tests can damage them
// one part at a time:
//   - the published stream-optimized layout: grains behind grain markers from
//     the head's end on, each grain table behind a marker after its grains,
//     the directory behind a marker, then footer marker, footer (the header
//     with the directory's real sector) and end-of-stream marker; or with
//     the tables and directory at the head, as some writers keep them;
//   - a plain sparse extent with zeroed grains (table entries of 1).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "dfz/zlib_compressor.h"
#include "kx/base.h"

namespace test {

struct CForeignImage {
  std::vector<unsigned char> bytes;
  // By grain index: the sector where the grain (or its grain marker) begins;
  // 0 absent, 1 zeroed.
  std::vector<uint64_t> grainSectors;
  std::vector<uint64_t> tableSectors;  // by table index, 0 for none
  uint64_t directorySector = 0;
  uint64_t footerSector = 0;  // 0 without a footer
  uint64_t endOfStreamSector = 0;
};

struct CStreamImageOptions {
  int64_t grainSizeSectors = 128;
  int entriesPerTable = 512;
  bool directoryAtEnd = true;  // else tables and directory in the head, no footer
  bool footer = true;
  int zeroSectorsAfterEnd = 0;
  // Grains that are all zeros get a grain marker too, instead of no entry.
  bool zeroGrainsStored = false;
  // Grains written a second time, with these bytes, after all others.
  std::vector<std::pair<int64_t, std::vector<unsigned char>>> rewrites;
  // Name of the extent file in the embedded descriptor.
  std::string fileName = "disk.vmdk";
  std::string createType = "streamOptimized";
  // Parent content ID and file name; none when the name is empty.
  uint32_t parentContentID = 0xFFFFFFFF;
  std::string parentFileName;
  uint32_t contentID = 0x12345678;
};

namespace images {

constexpr int kSector = 512;
constexpr int kHeadSectors = 128;
constexpr int kDescriptorSectors = 20;

inline void put(std::vector<unsigned char>& bytes, size_t at, uint64_t value, int width) {
  if (bytes.size() < at + width) bytes.resize(at + width, 0);
  for (int i = 0; i < width; ++i) bytes[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

inline void padToSector(std::vector<unsigned char>& bytes) {
  bytes.resize((bytes.size() + kSector - 1) / kSector * kSector, 0);
}

inline void appendMarker(std::vector<unsigned char>& bytes, uint64_t numSectors, uint32_t type) {
  const size_t at = bytes.size();
  bytes.resize(at + kSector, 0);
  put(bytes, at, numSectors, 8);
  put(bytes, at + 12, type, 4);
}

// A header sector at `at`.
inline void putHeader(std::vector<unsigned char>& bytes, size_t at, uint32_t version, uint32_t flags,
                      uint64_t capacity, uint64_t grainSize, bool descriptor, uint32_t entries,
                      uint64_t redundantDirectory, uint64_t directory, uint64_t overhead, uint16_t compress) {
  put(bytes, at, 0x564D444B, 4);
  put(bytes, at + 4, version, 4);
  put(bytes, at + 8, flags, 4);
  put(bytes, at + 12, capacity, 8);
  put(bytes, at + 20, grainSize, 8);
  put(bytes, at + 28, descriptor ? 1 : 0, 8);
  put(bytes, at + 36, descriptor ? kDescriptorSectors : 0, 8);
  put(bytes, at + 44, entries, 4);
  put(bytes, at + 48, redundantDirectory, 8);
  put(bytes, at + 56, directory, 8);
  put(bytes, at + 64, overhead, 8);
  const unsigned char check[] = {0x0A, 0x20, 0x0D, 0x0A};
  std::memcpy(&bytes[at + 73], check, 4);
  put(bytes, at + 77, compress, 2);
  bytes.resize(std::max(bytes.size(), at + kSector), 0);
}

inline std::string descriptorText(const std::string& createType, uint64_t sectors, const std::string& fileName,
                                  uint32_t contentID, uint32_t parentContentID, const std::string& parentFileName) {
  char cid[16], parent[16];
  std::snprintf(cid, sizeof cid, "%08x", contentID);
  std::snprintf(parent, sizeof parent, "%08x", parentContentID);
  std::string text = "# Disk DescriptorFile\nversion=1\nCID=" + std::string(cid) + "\nparentCID=" + parent +
                     "\ncreateType=\"" + createType + "\"\n";
  if (!parentFileName.empty()) text += "parentFileNameHint=\"" + parentFileName + "\"\n";
  text += "\n# Extent description\nRW " + std::to_string(sectors) + " SPARSE \"" + fileName + "\"\n";
  return text;
}

}  // namespace images

// `raw` as a stream-optimized extent of as many sectors as `raw` has (the
// last one filled up with zeros), with its descriptor embedded.
inline CForeignImage makeStreamOptimizedImage(const std::vector<unsigned char>& raw,
                                              const CStreamImageOptions& options = CStreamImageOptions()) {
  using namespace images;
  const int64_t grainBytes = options.grainSizeSectors * kSector;
  const uint64_t capacity = (raw.size() + kSector - 1) / kSector;
  const int64_t grains = (static_cast<int64_t>(capacity) + options.grainSizeSectors - 1) / options.grainSizeSectors;
  const int64_t tables = (grains + options.entriesPerTable - 1) / options.entriesPerTable;
  const int64_t directorySectors = (tables * 4 + kSector - 1) / kSector;
  CForeignImage image;
  image.grainSectors.assign(static_cast<size_t>(grains), 0);
  image.tableSectors.assign(static_cast<size_t>(tables), 0);
  std::vector<unsigned char>& bytes = image.bytes;
  bytes.assign(kSector * kHeadSectors, 0);
  const std::string text = descriptorText(options.createType, capacity, options.fileName, options.contentID,
                                          options.parentContentID, options.parentFileName);
  std::memcpy(&bytes[kSector], text.data(), text.size());

  // Tables in the head: directory at sector 21 + 4 per table, as compact as
  // a writer that keeps them there would place them.
  if (!options.directoryAtEnd) {
    image.directorySector = 1 + kDescriptorSectors;
    for (int64_t t = 0; t < tables; ++t) image.tableSectors[t] = image.directorySector + directorySectors + 4 * t;
  }

  auto zlib = kx::create<dfz::CZLibCompressor>(6);
  std::vector<unsigned char> packed(static_cast<size_t>(zlib->getCompressedSizeUpperBound(static_cast<int>(grainBytes))));
  const auto appendGrain = [&](int64_t g, const unsigned char* data, size_t size) {
    std::vector<unsigned char> grain(static_cast<size_t>(grainBytes), 0);
    std::memcpy(grain.data(), data, size);
    const int packedSize = zlib->compressSingleStep(grain.data(), static_cast<int>(grainBytes), packed.data(),
                                                    static_cast<int>(packed.size()));
    image.grainSectors[g] = bytes.size() / kSector;
    const size_t at = bytes.size();
    put(bytes, at, static_cast<uint64_t>(g * options.grainSizeSectors), 8);
    put(bytes, at + 8, static_cast<uint32_t>(packedSize), 4);
    bytes.insert(bytes.end(), packed.begin(), packed.begin() + packedSize);
    padToSector(bytes);
  };
  const auto appendTable = [&](int64_t t) {
    bool any = false;
    std::vector<unsigned char> table(options.entriesPerTable * 4, 0);
    for (int e = 0; e < options.entriesPerTable; ++e) {
      const int64_t g = t * options.entriesPerTable + e;
      if (g < grains && image.grainSectors[g] != 0) {
        put(table, e * 4, image.grainSectors[g], 4);
        any = true;
      }
    }
    if (!options.directoryAtEnd) {
      std::memcpy(&bytes[image.tableSectors[t] * kSector], table.data(), table.size());
      return;
    }
    if (!any) return;
    appendMarker(bytes, (table.size() + kSector - 1) / kSector, 1);
    image.tableSectors[t] = bytes.size() / kSector;
    bytes.insert(bytes.end(), table.begin(), table.end());
    padToSector(bytes);
  };

  for (int64_t t = 0; t < tables; ++t) {
    for (int e = 0; e < options.entriesPerTable; ++e) {
      const int64_t g = t * options.entriesPerTable + e;
      if (g >= grains) break;
      const size_t from = static_cast<size_t>(g * grainBytes);
      const size_t size = std::min(raw.size() - from, static_cast<size_t>(grainBytes));
      bool zero = true;
      for (size_t i = 0; i < size && zero; ++i) zero = raw[from + i] == 0;
      if (!zero || options.zeroGrainsStored) appendGrain(g, raw.data() + from, size);
    }
    if (options.rewrites.empty()) appendTable(t);
  }
  for (const auto& rewrite : options.rewrites) {
    appendGrain(rewrite.first, rewrite.second.data(), rewrite.second.size());
  }
  if (!options.rewrites.empty()) {
    for (int64_t t = 0; t < tables; ++t) appendTable(t);
  }

  std::vector<unsigned char> directory(static_cast<size_t>(directorySectors * kSector), 0);
  for (int64_t t = 0; t < tables; ++t) put(directory, t * 4, image.tableSectors[t], 4);
  if (options.directoryAtEnd) {
    appendMarker(bytes, directorySectors, 2);
    image.directorySector = bytes.size() / kSector;
    bytes.insert(bytes.end(), directory.begin(), directory.end());
  } else {
    std::memcpy(&bytes[image.directorySector * kSector], directory.data(), directory.size());
  }

  const uint32_t flags = 0x00030001;
  putHeader(bytes, 0, 3, flags, capacity, options.grainSizeSectors, true, options.entriesPerTable, 0,
            options.directoryAtEnd ? ~uint64_t{0} : image.directorySector, kHeadSectors, 1);
  if (options.footer) {
    appendMarker(bytes, 1, 3);
    image.footerSector = bytes.size() / kSector;
    bytes.resize(bytes.size() + kSector, 0);
    putHeader(bytes, image.footerSector * kSector, 3, flags, capacity, options.grainSizeSectors, true,
              options.entriesPerTable, 0, image.directorySector, kHeadSectors, 1);
    image.endOfStreamSector = bytes.size() / kSector;
    appendMarker(bytes, 0, 0);
  }
  bytes.resize(bytes.size() + options.zeroSectorsAfterEnd * kSector, 0);
  return image;
}

// `raw` as a plain sparse extent with redundant tables, grains of
// `grainSizeSectors`, its descriptor embedded; grains listed in
// `zeroedGrains` get table entry 1, all-zero grains none.
inline CForeignImage makeZeroedSparseImage(const std::vector<unsigned char>& raw, const std::set<int64_t>& zeroedGrains,
                                           int64_t grainSizeSectors = 128, const std::string& fileName = "disk.vmdk",
                                           uint32_t contentID = 0x12345678, uint32_t parentContentID = 0xFFFFFFFF,
                                           const std::string& parentFileName = "") {
  using namespace images;
  const int64_t grainBytes = grainSizeSectors * kSector;
  const uint64_t capacity = (raw.size() + kSector - 1) / kSector;
  const int64_t grains = (static_cast<int64_t>(capacity) + grainSizeSectors - 1) / grainSizeSectors;
  const int64_t tables = (grains + 511) / 512;
  const int64_t directorySectors = (tables * 4 + kSector - 1) / kSector;
  const uint64_t redundant = 1 + kDescriptorSectors;
  const uint64_t primary = redundant + directorySectors + 4 * tables;
  const uint64_t head = primary + directorySectors + 4 * tables;
  const uint64_t overhead = (head + grainSizeSectors - 1) / grainSizeSectors * grainSizeSectors;
  CForeignImage image;
  image.grainSectors.assign(static_cast<size_t>(grains), 0);
  image.directorySector = primary;
  std::vector<unsigned char>& bytes = image.bytes;
  bytes.assign(static_cast<size_t>(overhead * kSector), 0);
  const std::string text =
      descriptorText("monolithicSparse", capacity, fileName, contentID, parentContentID, parentFileName);
  std::memcpy(&bytes[kSector], text.data(), text.size());
  for (int64_t g = 0; g < grains; ++g) {
    if (zeroedGrains.count(g)) {
      image.grainSectors[g] = 1;
      continue;
    }
    const size_t from = static_cast<size_t>(g * grainBytes);
    const size_t size = std::min(raw.size() - from, static_cast<size_t>(grainBytes));
    bool zero = true;
    for (size_t i = 0; i < size && zero; ++i) zero = raw[from + i] == 0;
    if (zero) continue;
    image.grainSectors[g] = bytes.size() / kSector;
    bytes.insert(bytes.end(), raw.begin() + from, raw.begin() + from + size);
    bytes.resize(bytes.size() + static_cast<size_t>(grainBytes) - size, 0);
  }
  for (uint64_t directory : {redundant, primary}) {
    for (int64_t t = 0; t < tables; ++t) {
      const uint64_t table = directory + directorySectors + 4 * t;
      if (directory == primary) image.tableSectors.push_back(table);
      put(bytes, directory * kSector + t * 4, table, 4);
      for (int e = 0; e < 512 && t * 512 + e < grains; ++e) {
        put(bytes, table * kSector + e * 4, image.grainSectors[t * 512 + e], 4);
      }
    }
  }
  putHeader(bytes, 0, 2, 0x00000007, capacity, grainSizeSectors, true, 512, redundant, primary, overhead, 0);
  return image;
}

}  // namespace test
