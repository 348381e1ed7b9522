// Sector size and little-endian word access shared by the format code.
#pragma once

#include <cstdint>

namespace zarn {

constexpr int kSectorSize = 512;

inline uint32_t readLE32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

inline uint64_t readLE64(const unsigned char* p) {
  return static_cast<uint64_t>(readLE32(p)) | static_cast<uint64_t>(readLE32(p + 4)) << 32;
}

inline void writeLE32(unsigned char* p, uint32_t value) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(value >> (8 * i));
}

inline void writeLE16(unsigned char* p, uint16_t value) {
  p[0] = static_cast<unsigned char>(value);
  p[1] = static_cast<unsigned char>(value >> 8);
}

}  // namespace zarn
