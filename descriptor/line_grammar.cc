#include "descriptor/line_grammar.h"

#include <limits>

#include "foundation/kx/utf8.h"

namespace zarn {
namespace {

constexpr char kBlank = ' ';
constexpr char kQuote = '"';
const char kDDBPrefix[] = "ddb.";

// Only ASCII white space counts: a byte of a non-ASCII character never does.
bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view trimLeft(std::string_view text) {
  size_t start = 0;
  while (start < text.size() && isSpace(text[start])) ++start;
  return text.substr(start);
}

std::string_view trim(std::string_view text) {
  text = trimLeft(text);
  size_t end = text.size();
  while (end > 0 && isSpace(text[end - 1])) --end;
  return text.substr(0, end);
}

// Splits `rest`, after leading white space, at its first blank.
bool takeWord(std::string_view& rest, std::string_view& word) {
  rest = trimLeft(rest);
  const size_t blank = rest.find(kBlank);
  if (blank == std::string_view::npos) return false;
  word = rest.substr(0, blank);
  rest = rest.substr(blank + 1);
  return true;
}

}  // namespace

bool tryParseVMDKNameValueLine(std::string_view line, VMDKNameValueLine& parsed) {
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos) return false;
  const std::string_view name = trim(line.substr(0, equals));
  std::string_view value = trim(line.substr(equals + 1));
  if (name.empty() || name.find(kBlank) != std::string_view::npos) return false;
  bool quoted = false;
  if (!value.empty() && value.front() == kQuote && value.back() == kQuote) {
    quoted = true;
    value = value.size() >= 2 ? value.substr(1, value.size() - 2) : std::string_view();
  }
  parsed.name = name;
  parsed.value = value;
  parsed.quoted = quoted;
  return true;
}

bool tryParseVMDKExtentLine(std::string_view line, VMDKExtentLine& parsed) {
  // The access word is taken as it stands, even empty when the line starts
  // with a blank.
  const size_t blank = line.find(kBlank);
  if (blank == std::string_view::npos) return false;
  VMDKExtentLine result;
  result.access = line.substr(0, blank);
  std::string_view rest = line.substr(blank + 1);

  std::string_view sizeText;
  if (!takeWord(rest, sizeText) || !tryParseDecimalInt64(sizeText, result.sizeSectors)) return false;
  if (!takeWord(rest, result.type)) return false;

  rest = trimLeft(rest);
  if (rest.empty() || rest[0] != kQuote) return false;
  const size_t closing = rest.find(kQuote, 1);
  if (closing == std::string_view::npos) return false;
  result.filename = rest.substr(1, closing - 1);

  rest = trim(rest.substr(closing + 1));
  if (!rest.empty() && !tryParseDecimalInt64(rest, result.offset)) return false;
  parsed = result;
  return true;
}

void appendVMDKNameValueLine(std::string& out, const VMDKNameValueLine& line, bool latin1) {
  appendAsUTF8(out, line.name, latin1);
  out += line.name.substr(0, sizeof(kDDBPrefix) - 1) == kDDBPrefix ? " = " : "=";
  if (line.quoted) out += kQuote;
  appendAsUTF8(out, line.value, latin1);
  if (line.quoted) out += kQuote;
}

void appendVMDKExtentLine(std::string& out, const VMDKExtentLine& line, bool latin1) {
  appendAsUTF8(out, line.access, latin1);
  out += kBlank;
  out += std::to_string(line.sizeSectors);
  out += kBlank;
  appendAsUTF8(out, line.type, latin1);
  out += kBlank;
  out += kQuote;
  appendAsUTF8(out, line.filename, latin1);
  out += kQuote;
  if (line.offset != -1) {
    out += kBlank;
    out += std::to_string(line.offset);
  }
}

bool tryParseDecimalInt64(std::string_view text, int64_t& value) {
  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
  if (i == text.size()) return false;
  const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
  uint64_t magnitude = 0;
  for (; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
    if (magnitude > (limit - digit) / 10) return false;
    magnitude = magnitude * 10 + digit;
  }
  value = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
  return true;
}

size_t findInvalidUTF8(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const size_t size = bytes.size();
  size_t i = 0;
  while (i < size) {
    const unsigned char lead = p[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    size_t length;
    uint32_t value;
    uint32_t minimum;
    if ((lead & 0xE0) == 0xC0) {
      length = 2, value = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, value = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, value = lead & 0x07, minimum = 0x10000;
    } else {
      return i;
    }
    if (size - i < length) return i;
    for (size_t k = 1; k < length; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return i;
      value = (value << 6) | (p[i + k] & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return i;
    i += length;
  }
  return std::string_view::npos;
}

void appendAsUTF8(std::string& out, std::string_view bytes, bool latin1) {
  if (!latin1) {
    out.append(bytes);
    return;
  }
  for (char ch : bytes) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x80) {
      out += ch;
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
}

bool tryAppendUTF8(std::string& out, const kx::String& text) {
  const size_t start = out.size();
  for (const wxUniChar ch : text) {
    if (!kx::appendUTF8(out, ch.GetValue())) {
      out.resize(start);
      return false;
    }
  }
  return true;
}

}  // namespace zarn
