// Arrays of little-endian words read from or written to a file in one piece.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zarn {

constexpr bool kHostIsLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

// Turns words between file order and host order, in place; free on the
// little-endian hosts that are the rule.
template <class T>
void swapLittleEndianWords(T* words, size_t count) {
  if constexpr (!kHostIsLittleEndian) {
    for (size_t i = 0; i < count; ++i) {
      T value = words[i], swapped = 0;
      for (size_t b = 0; b < sizeof(T); ++b) swapped = static_cast<T>(swapped << 8 | ((value >> (8 * b)) & 0xFF));
      words[i] = swapped;
    }
  } else {
    (void)words;
    (void)count;
  }
}

// Whether `bytes` bytes from sector `posSectors` lie within a file of
// `lengthBytes`, without overflow.
inline bool isWithinFile(int64_t posSectors, int64_t bytes, int64_t lengthBytes) {
  if (posSectors < 0 || bytes < 0 || lengthBytes < 0) return false;
  if (posSectors > lengthBytes / 512) return false;
  return bytes <= lengthBytes - posSectors * 512;
}

}  // namespace zarn
