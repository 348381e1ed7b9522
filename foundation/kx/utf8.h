// UTF-8 encoding of one code point, shared by the URI and descriptor code.
#pragma once

#include <cstdint>
#include <string>

namespace kx {

// Appends the UTF-8 form of `c`; false, with nothing appended, for a
// surrogate or a value above U+10FFFF, which have none.
inline bool appendUTF8(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c >= 0xD800 && c <= 0xDFFF) {
    return false;
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c <= 0x10FFFF) {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    return false;
  }
  return true;
}

}  // namespace kx
