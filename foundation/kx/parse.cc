#include "kx/parse.h"

#include <cstdint>
#include <limits>

#include "kx/error.h"

namespace kx {
namespace {

[[noreturn]] void raiseBadNumber(const char* what, const String& text) {
  throw CError(String("Invalid ") + what + ": '" + text + "'", String(), -1,
               CProps().add("text", text));
}

int hexDigitValue(wxUniChar c) {
  const auto v = c.GetValue();
  if (v >= '0' && v <= '9') return static_cast<int>(v - '0');
  if (v >= 'a' && v <= 'f') return static_cast<int>(v - 'a' + 10);
  if (v >= 'A' && v <= 'F') return static_cast<int>(v - 'A' + 10);
  return -1;
}

bool hasHexPrefix(const String& text, size_t at) {
  return text.length() >= at + 2 && text[at] == '0' && (text[at + 1] == 'x' || text[at + 1] == 'X');
}

// Reads hex digits from `start` to the end; false on a bad digit, on no digit
// or on more than 16.
bool readHexDigits(const String& text, size_t start, uint64_t& value) {
  const size_t count = text.length() - start;
  if (count == 0 || count > 16) return false;
  value = 0;
  for (size_t i = start; i < text.length(); ++i) {
    const int d = hexDigitValue(text[i]);
    if (d < 0) return false;
    value = (value << 4) | static_cast<uint64_t>(d);
  }
  return true;
}

}  // namespace

int64_t parseInt64(const String& text, bool allowHexPrefix) {
  size_t i = 0;
  bool negative = false;
  if (i < text.length() && (text[i] == '-' || text[i] == '+')) {
    negative = text[i] == '-';
    ++i;
  }
  uint64_t magnitude = 0;
  if (allowHexPrefix && hasHexPrefix(text, i)) {
    if (!readHexDigits(text, i + 2, magnitude)) raiseBadNumber("integer number", text);
  } else {
    if (i == text.length()) raiseBadNumber("integer number", text);
    for (; i < text.length(); ++i) {
      const auto v = text[i].GetValue();
      if (v < '0' || v > '9') raiseBadNumber("integer number", text);
      const uint64_t digit = v - '0';
      if (magnitude > (std::numeric_limits<uint64_t>::max() - digit) / 10) {
        raiseBadNumber("integer number", text);
      }
      magnitude = magnitude * 10 + digit;
    }
  }
  const uint64_t limit = negative ? uint64_t(1) << 63 : (uint64_t(1) << 63) - 1;
  if (magnitude > limit) raiseBadNumber("integer number", text);
  if (negative) return magnitude == limit ? std::numeric_limits<int64_t>::min() : -static_cast<int64_t>(magnitude);
  return static_cast<int64_t>(magnitude);
}

int64_t parseHexInt64(const String& text, bool allowPrefix) {
  const size_t start = allowPrefix && hasHexPrefix(text, 0) ? 2 : 0;
  uint64_t value = 0;
  if (!readHexDigits(text, start, value)) raiseBadNumber("hex number", text);
  return static_cast<int64_t>(value);
}

bool parseBool(const String& text) {
  const String lower = text.Lower();
  if (lower == "true" || lower == "yes" || lower == "1" || lower == "on") return true;
  if (lower == "false" || lower == "no" || lower == "0" || lower == "off") return false;
  raiseBadNumber("boolean value", text);
}

String hexEncode(const void* data, size_t size, bool upperCase) {
  static const char lowerDigits[] = "0123456789abcdef";
  static const char upperDigits[] = "0123456789ABCDEF";
  const char* digits = upperCase ? upperDigits : lowerDigits;
  std::string out(size * 2, '0');
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < size; ++i) {
    out[2 * i] = digits[bytes[i] >> 4];
    out[2 * i + 1] = digits[bytes[i] & 0x0f];
  }
  return String::FromAscii(out.data(), out.size());
}

String hexEncode(const TBuffer<unsigned char>& data, bool upperCase) {
  return hexEncode(data.getData(), data.getUsed(), upperCase);
}

void hexDecode(const String& text, TBuffer<unsigned char>& out) {
  if (text.length() % 2 != 0) {
    throw CError("Invalid hex text: odd number of digits", String(), -1, CProps().add("text", text));
  }
  // Checked first and decoded straight into `out`: the text is often a key,
  // and a temporary copy would leave it behind in freed memory.
  for (size_t i = 0; i < text.length(); ++i) {
    if (hexDigitValue(text[i]) < 0) {
      throw CError("Invalid hex text: bad digit", String(), -1,
                   CProps().add("text", text).add("index", static_cast<uint64_t>(i)));
    }
  }
  out.setUsed(0);  // nothing to keep when it grows
  out.setUsed(text.length() / 2);
  for (size_t i = 0; i < out.getUsed(); ++i) {
    out.getData()[i] = static_cast<unsigned char>(hexDigitValue(text[2 * i]) << 4 | hexDigitValue(text[2 * i + 1]));
  }
}

}  // namespace kx
