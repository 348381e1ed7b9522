// Text to number and back, with clear errors on bad text.
#pragma once

#include <cstdint>

#include "kx/buffer.h"
#include "kx/string.h"

namespace kx {

// Reads a decimal signed 64-bit number; an optional sign, no white space.
// With `allowHexPrefix`, "0x..." is read as hex. Raises kx::CError on an
// empty, malformed or out-of-range text.
int64_t parseInt64(const String& text, bool allowHexPrefix = false);

// Reads 1 to 16 hex digits of either case as the bits of a 64-bit number.
// With `allowPrefix`, an optional "0x" or "0X" comes first. Raises kx::CError
// on anything else.
int64_t parseHexInt64(const String& text, bool allowPrefix = false);

// "true"/"false", "yes"/"no", "1"/"0", "on"/"off", of either case. Raises
// kx::CError otherwise.
bool parseBool(const String& text);

// Two hex digits per byte, lower case unless `upperCase`.
String hexEncode(const TBuffer<unsigned char>& data, bool upperCase = false);
String hexEncode(const void* data, size_t size, bool upperCase = false);

// Replaces the content of `out` by the bytes that `text` spells. Raises
// kx::CError on an odd length or a character that is no hex digit; `out` is
// then left unchanged.
void hexDecode(const String& text, TBuffer<unsigned char>& out);

}  // namespace kx
