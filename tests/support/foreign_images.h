// Sparse extent files in layouts of other tools, built in memory from plain
// bytes, with the places of their parts so that tests can damage one part at
// a time: the published stream-optimized layout (grain markers from the head's
// end on, each table behind a marker after its grains, the directory behind a
// marker, then footer marker, footer and end-of-stream marker; or the tables
// in the head), and a plain sparse extent with zeroed grains (entries of 1).
// Each embeds a descriptor that names the file itself.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "dfz/zlib_compressor.h"

namespace test {

using ImageBytes = std::vector<unsigned char>;

struct CForeignImage {
  ImageBytes bytes;
  std::vector<uint64_t> grainSectors;  // by grain: where it (or its marker) begins; 0 none, 1 zeroed
  std::vector<uint64_t> tableSectors;  // by table, 0 for none
  uint64_t directorySector = 0, footerSector = 0;
};

struct CImageOptions {
  std::string fileName = "disk.vmdk";
  uint32_t contentID = 0x12345678, parentContentID = 0xFFFFFFFF;
  std::string parentFileName;  // none when empty
  int64_t grainSectors = 128;
  int entriesPerTable = 512;
  bool directoryAtEnd = true, footer = true;  // stream only
  int zeroSectorsAfterEnd = 0;
  std::vector<std::pair<int64_t, ImageBytes>> rewrites;  // grains stored again, behind all others
  std::set<int64_t> zeroed;                              // plain only: entries of 1
};

namespace images {

inline void put(ImageBytes& b, size_t at, uint64_t value, int width) {
  if (b.size() < at + width) b.resize(at + width, 0);
  for (int i = 0; i < width; ++i) b[at + i] = static_cast<unsigned char>(value >> (8 * i));
}
inline void pad(ImageBytes& b) { b.resize((b.size() + 511) / 512 * 512, 0); }
inline uint64_t appendMarker(ImageBytes& b, uint64_t count, uint32_t type) {
  put(b, b.size() + 511, 0, 1);
  put(b, b.size() - 512, count, 8);
  put(b, b.size() - 500, type, 4);
  return b.size() / 512;  // the sector behind it
}
// Header or footer at `at`: descriptor in sectors 1 to 20, overhead `head`.
inline void putHeader(ImageBytes& b, size_t at, bool stream, uint64_t capacity, const CImageOptions& o,
                      uint64_t redundant, uint64_t directory, uint64_t head) {
  const uint64_t fields[] = {stream ? 3u : 2u, stream ? 0x30001u : 0x7u};
  put(b, at, 0x564D444B, 4), put(b, at + 4, fields[0], 4), put(b, at + 8, fields[1], 4);
  put(b, at + 12, capacity, 8), put(b, at + 20, o.grainSectors, 8), put(b, at + 28, 1, 8), put(b, at + 36, 20, 8);
  put(b, at + 44, o.entriesPerTable, 4), put(b, at + 48, redundant, 8), put(b, at + 56, directory, 8);
  put(b, at + 64, head, 8), put(b, at + 73, 0x0A0D200A, 4), put(b, at + 77, stream ? 1 : 0, 2);
  put(b, at + 511, 0, 1);
}
inline void putDescriptor(ImageBytes& b, const char* createType, uint64_t capacity, const CImageOptions& o) {
  char text[512];
  const int size = std::snprintf(
      text, sizeof text, "version=1\nCID=%08x\nparentCID=%08x\ncreateType=\"%s\"\n%s%s%sRW %llu SPARSE \"%s\"\n",
      o.contentID, o.parentContentID, createType, o.parentFileName.empty() ? "" : "parentFileNameHint=\"",
      o.parentFileName.c_str(), o.parentFileName.empty() ? "" : "\"\n", static_cast<unsigned long long>(capacity),
      o.fileName.c_str());
  std::memcpy(&b[512], text, static_cast<size_t>(size));
}
inline bool isZero(const ImageBytes& raw, size_t from, size_t size) {
  return std::all_of(raw.begin() + from, raw.begin() + from + size, [](unsigned char c) { return c == 0; });
}

}  // namespace images

// `raw` (filled up to whole sectors) as a stream-optimized extent.
inline CForeignImage makeStreamOptimizedImage(const ImageBytes& raw, const CImageOptions& o = CImageOptions()) {
  using namespace images;
  const size_t grainBytes = static_cast<size_t>(o.grainSectors) * 512;
  const uint64_t capacity = (raw.size() + 511) / 512;
  const int64_t grains = (static_cast<int64_t>(capacity) + o.grainSectors - 1) / o.grainSectors;
  const int64_t tables = (grains + o.entriesPerTable - 1) / o.entriesPerTable;
  const int64_t directorySectors = (tables * 4 + 511) / 512;
  const uint64_t tableSectors = (o.entriesPerTable * 4 + 511) / 512;
  CForeignImage image;
  image.grainSectors.assign(grains, 0);
  image.tableSectors.assign(tables, 0);
  ImageBytes& b = image.bytes;
  b.assign(128 * 512, 0);
  putDescriptor(b, "streamOptimized", capacity, o);
  if (!o.directoryAtEnd) {  // directory at sector 21, tables behind it
    image.directorySector = 21;
    for (int64_t t = 0; t < tables; ++t) image.tableSectors[t] = 21 + directorySectors + tableSectors * t;
  }
  auto zlib = kx::create<dfz::CZLibCompressor>(6);
  ImageBytes grain(grainBytes), packed(static_cast<size_t>(zlib->getCompressedSizeUpperBound(int(grainBytes))));
  const auto appendGrain = [&](int64_t g, const unsigned char* data, size_t size) {
    std::fill(std::copy(data, data + size, grain.begin()), grain.end(), 0);
    const int n = zlib->compressSingleStep(grain.data(), int(grainBytes), packed.data(), int(packed.size()));
    image.grainSectors[g] = b.size() / 512;
    put(b, b.size(), g * o.grainSectors, 8), put(b, b.size(), n, 4);
    b.insert(b.end(), packed.begin(), packed.begin() + n), pad(b);
  };
  const auto putTable = [&](int64_t t) {
    ImageBytes table(tableSectors * 512, 0);
    for (int e = 0; e < o.entriesPerTable && t * o.entriesPerTable + e < grains; ++e) {
      put(table, e * 4, image.grainSectors[t * o.entriesPerTable + e], 4);
    }
    if (!o.directoryAtEnd) {
      std::copy(table.begin(), table.end(), b.begin() + image.tableSectors[t] * 512);
    } else if (!images::isZero(table, 0, table.size())) {
      image.tableSectors[t] = appendMarker(b, tableSectors, 1);
      b.insert(b.end(), table.begin(), table.end());
    }
  };
  for (int64_t t = 0; t < tables; ++t) {
    for (int64_t g = t * o.entriesPerTable; g < std::min(grains, (t + 1) * o.entriesPerTable); ++g) {
      const size_t from = g * grainBytes, size = std::min(raw.size() - from, grainBytes);
      if (!images::isZero(raw, from, size)) appendGrain(g, raw.data() + from, size);
    }
    if (o.rewrites.empty()) putTable(t);
  }
  for (const auto& rewrite : o.rewrites) appendGrain(rewrite.first, rewrite.second.data(), rewrite.second.size());
  for (int64_t t = 0; t < tables && !o.rewrites.empty(); ++t) putTable(t);
  if (o.directoryAtEnd) image.directorySector = appendMarker(b, directorySectors, 2);
  for (int64_t t = 0; t < tables; ++t) put(b, image.directorySector * 512 + t * 4, image.tableSectors[t], 4);
  pad(b);
  putHeader(b, 0, true, capacity, o, 0, o.directoryAtEnd ? ~uint64_t{0} : image.directorySector, 128);
  if (o.footer) {
    image.footerSector = appendMarker(b, 1, 3);
    putHeader(b, b.size(), true, capacity, o, 0, image.directorySector, 128);
    appendMarker(b, 0, 0);
  }
  b.resize(b.size() + o.zeroSectorsAfterEnd * 512, 0);
  return image;
}

// `raw` as a plain sparse extent with redundant tables; grains in o.zeroed
// get entry 1, grains of zeros none.
inline CForeignImage makeZeroedSparseImage(const ImageBytes& raw, const CImageOptions& o = CImageOptions()) {
  using namespace images;
  const size_t grainBytes = static_cast<size_t>(o.grainSectors) * 512;
  const uint64_t capacity = (raw.size() + 511) / 512;
  const int64_t grains = (static_cast<int64_t>(capacity) + o.grainSectors - 1) / o.grainSectors;
  const int64_t tables = (grains + 511) / 512, directorySectors = (tables * 4 + 511) / 512;
  const uint64_t redundant = 21, primary = redundant + directorySectors + 4 * tables;
  const uint64_t head = (primary + directorySectors + 4 * tables + o.grainSectors - 1) / o.grainSectors * o.grainSectors;
  CForeignImage image;
  image.directorySector = primary;
  ImageBytes& b = image.bytes;
  b.assign(head * 512, 0);
  putDescriptor(b, "monolithicSparse", capacity, o);
  for (int64_t g = 0; g < grains; ++g) {
    const size_t from = g * grainBytes, size = std::min(raw.size() - from, grainBytes);
    image.grainSectors.push_back(o.zeroed.count(g) ? 1 : images::isZero(raw, from, size) ? 0 : b.size() / 512);
    if (image.grainSectors[g] < 2) continue;
    b.insert(b.end(), raw.begin() + from, raw.begin() + from + size);
    b.resize(b.size() + grainBytes - size, 0);
  }
  for (uint64_t directory : {redundant, primary}) {
    for (int64_t t = 0; t < tables; ++t) {
      const uint64_t table = directory + directorySectors + 4 * t;
      if (directory == primary) image.tableSectors.push_back(table);
      put(b, directory * 512 + t * 4, table, 4);
      for (int64_t e = 0; e < 512 && t * 512 + e < grains; ++e) put(b, table * 512 + e * 4, image.grainSectors[t * 512 + e], 4);
    }
  }
  CImageOptions plain = o;
  plain.entriesPerTable = 512;
  putHeader(b, 0, false, capacity, plain, redundant, primary, head);
  return image;
}

}  // namespace test
