// The input of the fuzz targets over whole disks: several files, one after
// another, each
//   name, a zero byte, the file's length (u32 LE), the count of pieces (u16 LE),
//   and per piece its offset (u32 LE), its length (u16 LE) and its bytes,
// so that the large runs of zeros of a real disk cost nothing. The first file
// is the disk's main file. fuzz/make_disk_seeds.sh packs disks this way.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "kx/string.h"
#include "kx/uri.h"

namespace fuzz {

constexpr uint32_t kMaxFileBytes = 1u << 20;
constexpr int kMaxFiles = 8;

struct CReader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  bool take(void* out, size_t n) {
    if (size - at < n) return false;
    std::memcpy(out, data + at, n);
    at += n;
    return true;
  }
  template <class T>
  bool le(T& value) {
    unsigned char bytes[sizeof(T)];
    if (!take(bytes, sizeof bytes)) return false;
    value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) value |= static_cast<T>(static_cast<T>(bytes[i]) << (8 * i));
    return true;
  }
};

// The files of the input, in the memory file system under file:///d/, each
// cut at `maxFileBytes`; the main file's URI, or an empty one when there is
// none.
inline kx::CURI unpackFiles(const uint8_t* data, size_t size, kx::CMemoryFileSystem& fs,
                            uint32_t maxFileBytes = kMaxFileBytes) {
  CReader in{data, size};
  kx::CURI main;
  for (int files = 0; files < kMaxFiles && in.at < size; ++files) {
    std::string name;
    char c;
    while (in.take(&c, 1) && c != 0 && name.size() < 64) name += c;
    uint32_t length = 0;
    uint16_t pieces = 0;
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos || !in.le(length) ||
        !in.le(pieces)) {
      break;
    }
    std::vector<unsigned char> bytes(std::min(length, maxFileBytes), 0);
    for (uint16_t p = 0; p < pieces; ++p) {
      uint32_t offset = 0;
      uint16_t count = 0;
      if (!in.le(offset) || !in.le(count) || size - in.at < count) break;
      for (uint16_t i = 0; i < count; ++i) {
        if (offset + uint64_t{i} < bytes.size()) bytes[offset + i] = data[in.at + i];
      }
      in.at += count;
    }
    // A name of no valid UTF-8 decodes to nothing, which names no file.
    const kx::String decoded = kx::String::FromUTF8(name.c_str());
    if (decoded.isEmpty()) break;
    try {
      const kx::CURI uri = kx::CURI(kx::String("file:///d/")) << decoded;
      fs.setFileData(uri, bytes.data(), bytes.size());
      if (main.isEmpty()) main = uri;
    } catch (const kx::CError&) {
      break;  // a name no file can have
    }
  }
  return main;
}

}  // namespace fuzz
