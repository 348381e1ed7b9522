// The grammar of the descriptor lines that carry meaning, read from bytes.
//
// Every character that gives a line its structure ("=", the double quote, the
// blank, "#") is ASCII, and ASCII bytes never occur inside the encoding of
// another character in UTF-8 or Latin-1, so the same functions read a line in
// either encoding; only the pieces they hand back are in that encoding.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kx/string.h"

namespace zarn {

// "name=value": split at the first "=", white space (ASCII blank, tab, line
// feed, vertical tab, form feed, carriage return) trimmed around both. A value
// that starts and ends with a double quote is given without them, and a lone
// double quote is an empty quoted value.
struct VMDKNameValueLine {
  std::string_view name;
  std::string_view value;
  bool quoted = false;
};

// access sizeSectors type "filename" [offset], words separated by blanks;
// `offset` is -1 when the line has none.
struct VMDKExtentLine {
  std::string_view access;
  int64_t sizeSectors = 0;
  std::string_view type;
  std::string_view filename;
  int64_t offset = -1;
};

// False when there is no "=", or the name is empty or holds a blank.
bool tryParseVMDKNameValueLine(std::string_view line, VMDKNameValueLine& parsed);
// False for any line that doesn't have the extent form, numbers that aren't
// decimal or don't fit 64 bits included.
bool tryParseVMDKExtentLine(std::string_view line, VMDKExtentLine& parsed);

// The one written form of each kind of line, appended to `out` as UTF-8; the
// pieces of `line` are Latin-1 when `latin1`, else UTF-8.
void appendVMDKNameValueLine(std::string& out, const VMDKNameValueLine& line, bool latin1);
void appendVMDKExtentLine(std::string& out, const VMDKExtentLine& line, bool latin1);

// A decimal signed 64-bit number: an optional sign and at least one digit,
// nothing else. False when the text is no such number or it doesn't fit.
bool tryParseDecimalInt64(std::string_view text, int64_t& value);

// The offset of the first byte that starts no valid UTF-8 sequence, or npos.
// Valid means the shortest form of a code point up to U+10FFFF that is no
// surrogate: the only form that every decoder reads the same way.
size_t findInvalidUTF8(std::string_view bytes);
// Appends `bytes` to `out` as UTF-8, taking them as Latin-1 when `latin1`.
void appendAsUTF8(std::string& out, std::string_view bytes, bool latin1);
// Appends the UTF-8 form of `text`. False, with `out` unchanged, when a
// character has none (a surrogate, or a value above U+10FFFF).
bool tryAppendUTF8(std::string& out, const kx::String& text);

}  // namespace zarn
