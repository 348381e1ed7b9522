#include "kx/uri.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/kx/split.h"
#include "foundation/kx/utf8.h"
#include "kx/error.h"
#include "kx/path.h"

namespace kx {

namespace {

constexpr const char* kContext = "CURI";
constexpr int64_t kMaxPort = 65535;
constexpr char kHexDigits[] = "0123456789ABCDEF";

// ---- Character classes of RFC 3986, on bytes.

bool isAlpha(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(unsigned char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool isUnreserved(unsigned char c) {
  return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}
bool isSubDelim(unsigned char c) {
  return std::string_view("!$&'()*+,;=").find(static_cast<char>(c)) != std::string_view::npos;
}
bool isUserInfoChar(unsigned char c) { return isUnreserved(c) || isSubDelim(c) || c == ':'; }
bool isUserNameChar(unsigned char c) { return isUnreserved(c) || isSubDelim(c); }
bool isRegNameChar(unsigned char c) { return isUnreserved(c) || isSubDelim(c); }
bool isPathChar(unsigned char c) {
  return isUnreserved(c) || isSubDelim(c) || c == ':' || c == '@' || c == '/';
}
bool isSegmentChar(unsigned char c) { return isPathChar(c) && c != '/'; }
bool isQueryChar(unsigned char c) { return isPathChar(c) || c == '?'; }
bool isSchemeChar(unsigned char c) { return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.'; }

int hexValue(unsigned char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}

void appendEscape(std::string& out, unsigned char c) {
  out += '%';
  out += kHexDigits[c >> 4];
  out += kHexDigits[c & 0xF];
}

bool isEscapeAt(std::string_view text, size_t pos) {
  return pos + 2 < text.size() && text[pos] == '%' && isHexDigit(text[pos + 1]) && isHexDigit(text[pos + 2]);
}

unsigned char escapedByteAt(std::string_view text, size_t pos) {
  return static_cast<unsigned char>(hexValue(text[pos + 1]) * 16 + hexValue(text[pos + 2]));
}

[[noreturn]] void throwBadURI(const String& message, const std::string& text) {
  throw CInvalidArgError(kContext, message, CProps().add("uri", String::fromUTF8(text)));
}

// Escapes every byte of decoded text that `allowed` refuses.
template <class Allowed>
std::string escape(std::string_view decoded, Allowed allowed) {
  std::string out;
  out.reserve(decoded.size());
  for (char ch : decoded) {
    const auto c = static_cast<unsigned char>(ch);
    if (allowed(c)) {
      out += ch;
    } else {
      appendEscape(out, c);
    }
  }
  return out;
}

// Checks a component of URI text against `allowed`; non-ASCII bytes, and
// blanks where `blanksTaken`, are escaped rather than refused. Raises on a bad
// escape or character.
template <class Allowed>
std::string checkComponent(std::string_view part, Allowed allowed, bool blanksTaken,
                           const std::string& wholeText) {
  std::string out;
  out.reserve(part.size());
  for (size_t i = 0; i < part.size(); ++i) {
    const auto c = static_cast<unsigned char>(part[i]);
    if (c == '%') {
      if (!isEscapeAt(part, i)) throwBadURI("Bad percent-escape in URI", wholeText);
      out.append(part.substr(i, 3));
      i += 2;
    } else if (allowed(c)) {
      out += static_cast<char>(c);
    } else if ((blanksTaken && c == ' ') || c >= 0x80) {
      appendEscape(out, c);
    } else {
      // Control characters are shown escaped, so that the message stays printable.
      std::string shown;
      if (c < 0x20 || c == 0x7F) {
        appendEscape(shown, c);
      } else {
        shown = static_cast<char>(c);
      }
      throwBadURI(String::fromUTF8("Bad character in URI: " + shown), wholeText);
    }
  }
  return out;
}

// The length of the valid UTF-8 sequence that starts at `pos` of `bytes`, or
// 0 if none does. Overlong forms and surrogates are invalid.
size_t getUTF8SequenceLength(std::string_view bytes, size_t pos, uint32_t* codePoint) {
  const auto lead = static_cast<unsigned char>(bytes[pos]);
  size_t length;
  uint32_t value;
  uint32_t minimum;
  if (lead < 0x80) {
    *codePoint = lead;
    return 1;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2, value = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, value = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, value = lead & 0x07, minimum = 0x10000;
  } else {
    return 0;
  }
  if (pos + length > bytes.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    const auto c = static_cast<unsigned char>(bytes[pos + i]);
    if ((c & 0xC0) != 0x80) return 0;
    value = (value << 6) | (c & 0x3F);
  }
  if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  *codePoint = value;
  return length;
}

// The one mapping between bytes (what escapes hold, what names a local file)
// and text: valid UTF-8 reads as its characters, and every other byte b as
// U+DC00 + b, a lone surrogate that no valid UTF-8 gives. Every byte string
// has its own text, and textToBytes gives it back.
constexpr uint32_t kByteEscapeBase = 0xDC00;

String bytesToText(std::string_view bytes) {
  String result;
  size_t runStart = 0;
  size_t pos = 0;
  while (pos < bytes.size()) {
    uint32_t codePoint;
    const size_t length = getUTF8SequenceLength(bytes, pos, &codePoint);
    if (length > 0) {
      pos += length;
      continue;
    }
    result += String::fromUTF8(bytes.data() + runStart, pos - runStart);
    result += wxUniChar(kByteEscapeBase + static_cast<unsigned char>(bytes[pos]));
    runStart = ++pos;
  }
  result += String::fromUTF8(bytes.data() + runStart, pos - runStart);
  return result;
}

// False for a character that no byte string reads as: a surrogate other than
// an escaped byte, or a value above U+10FFFF; `*bad` gets that character.
bool tryTextToBytes(const String& text, std::string& bytes, uint32_t* bad = nullptr) {
  bytes.clear();
  bytes.reserve(text.length());
  for (const wxUniChar ch : text) {
    const uint32_t c = ch.GetValue();
    if (c >= kByteEscapeBase + 0x80 && c <= kByteEscapeBase + 0xFF) {
      bytes += static_cast<char>(c - kByteEscapeBase);
    } else if (!appendUTF8(bytes, c)) {
      if (bad) *bad = c;
      return false;
    }
  }
  return true;
}

// As tryTextToBytes, raising kx::CInvalidArgError instead: text that names
// nothing must not turn into a shorter name that does.
std::string textToBytes(const String& text) {
  std::string bytes;
  uint32_t bad = 0;
  if (!tryTextToBytes(text, bytes, &bad)) {
    throw CInvalidArgError(kContext, String::Format("Character U+%04X has no byte form in a URI", bad),
                           CProps().add("character", bad));
  }
  return bytes;
}

std::string percentDecodeBytes(std::string_view escaped) {
  std::string bytes;
  bytes.reserve(escaped.size());
  for (size_t i = 0; i < escaped.size(); ++i) {
    if (isEscapeAt(escaped, i)) {
      bytes += static_cast<char>(escapedByteAt(escaped, i));
      i += 2;
    } else {
      bytes += escaped[i];
    }
  }
  return bytes;
}

String percentDecode(std::string_view escaped) { return bytesToText(percentDecodeBytes(escaped)); }

std::optional<String> percentDecodeOpt(const std::optional<String>& escaped) {
  if (!escaped) return std::nullopt;
  return percentDecode(std::string_view(escaped->toUTF8()));
}

// Characters that would mislead a reader if they stood unescaped in a message:
// invisible ones and those that turn the direction of the text.
bool isShownAsCharacter(uint32_t codePoint) {
  if (codePoint < 0xA0) return false;
  if (codePoint == 0xAD || codePoint == 0xFEFF) return false;
  if (codePoint >= 0x200B && codePoint <= 0x200F) return false;
  if (codePoint >= 0x2028 && codePoint <= 0x202E) return false;
  if (codePoint >= 0x2060 && codePoint <= 0x206F) return false;
  return true;
}

// Escaped text with the escapes of non-ASCII characters (and, with
// `blanksToo`, of blanks) replaced by the characters themselves.
String unescapeNonASCII(std::string_view escaped, bool blanksToo) {
  std::string out;
  out.reserve(escaped.size());
  size_t i = 0;
  while (i < escaped.size()) {
    if (!isEscapeAt(escaped, i)) {
      out += escaped[i++];
      continue;
    }
    // Gather the run of escapes, then take whole UTF-8 sequences from it.
    std::string bytes;
    std::vector<size_t> textPos;
    while (isEscapeAt(escaped, i)) {
      bytes += static_cast<char>(escapedByteAt(escaped, i));
      textPos.push_back(i);
      i += 3;
    }
    size_t b = 0;
    while (b < bytes.size()) {
      uint32_t codePoint = 0;
      const size_t length = getUTF8SequenceLength(bytes, b, &codePoint);
      if ((length > 1 && isShownAsCharacter(codePoint)) || (blanksToo && codePoint == ' ' && length == 1)) {
        out.append(bytes, b, length);
        b += length;
      } else {
        out.append(escaped.substr(textPos[b], 3));
        ++b;
      }
    }
  }
  return String::fromUTF8(out);
}

// Hex digits of escapes in upper case; escapes of unreserved characters decoded.
std::string normalizeEscapes(std::string_view escaped) {
  std::string out;
  out.reserve(escaped.size());
  for (size_t i = 0; i < escaped.size(); ++i) {
    if (!isEscapeAt(escaped, i)) {
      out += escaped[i];
      continue;
    }
    const unsigned char c = escapedByteAt(escaped, i);
    if (isUnreserved(c)) {
      out += static_cast<char>(c);
    } else {
      appendEscape(out, c);
    }
    i += 2;
  }
  return out;
}

std::optional<String> normalizeEscapesOpt(const std::optional<String>& escaped) {
  if (!escaped) return std::nullopt;
  return String(normalizeEscapes(escaped->toUTF8()));
}

std::string toLowerASCII(std::string text) {
  for (char& ch : text) {
    if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch - 'A' + 'a');
  }
  return text;
}

// Lower case, except in the hex digits of escapes, which stay upper case.
std::string toLowerOutsideEscapes(std::string_view escaped) {
  std::string out(escaped);
  for (size_t i = 0; i < out.size(); ++i) {
    if (out[i] == '%') {
      i += 2;
    } else if (out[i] >= 'A' && out[i] <= 'Z') {
      out[i] = static_cast<char>(out[i] - 'A' + 'a');
    }
  }
  return out;
}

bool isValidScheme(std::string_view scheme) {
  if (scheme.empty() || !isAlpha(scheme[0])) return false;
  for (char c : scheme) {
    if (!isSchemeChar(c)) return false;
  }
  return true;
}

bool isValidIPv4(std::string_view text) {
  int parts = 0;
  size_t pos = 0;
  while (true) {
    size_t end = text.find('.', pos);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view part = text.substr(pos, end - pos);
    if (part.empty() || part.size() > 3 || (part.size() > 1 && part[0] == '0')) return false;
    int value = 0;
    for (char c : part) {
      if (!isDigit(c)) return false;
      value = value * 10 + (c - '0');
    }
    if (value > 255) return false;
    ++parts;
    if (end == text.size()) break;
    pos = end + 1;
  }
  return parts == 4;
}

// Counts the 16-bit pieces of "h16:h16:..." (the last may be an IPv4 address,
// which counts as two); -1 if the text isn't of that form. Empty text has none.
int countIPv6Pieces(std::string_view text, bool mayEndInIPv4) {
  if (text.empty()) return 0;
  int pieces = 0;
  size_t pos = 0;
  while (true) {
    size_t end = text.find(':', pos);
    const bool last = end == std::string_view::npos;
    if (last) end = text.size();
    const std::string_view piece = text.substr(pos, end - pos);
    if (last && mayEndInIPv4 && piece.find('.') != std::string_view::npos) {
      return isValidIPv4(piece) ? pieces + 2 : -1;
    }
    if (piece.empty() || piece.size() > 4) return -1;
    for (char c : piece) {
      if (!isHexDigit(c)) return -1;
    }
    ++pieces;
    if (last) return pieces;
    pos = end + 1;
  }
}

bool isValidIPv6(std::string_view text) {
  const size_t gap = text.find("::");
  if (gap == std::string_view::npos) return countIPv6Pieces(text, true) == 8;
  if (text.find("::", gap + 1) != std::string_view::npos) return false;
  const int before = countIPv6Pieces(text.substr(0, gap), false);
  const int after = countIPv6Pieces(text.substr(gap + 2), true);
  return before >= 0 && after >= 0 && before + after <= 7;
}

// "v" 1*HEXDIG "." 1*( unreserved / sub-delims / ":" )
bool isValidIPvFuture(std::string_view text) {
  if (text.size() < 4 || (text[0] != 'v' && text[0] != 'V')) return false;
  const size_t dot = text.find('.');
  if (dot == std::string_view::npos || dot < 2 || dot + 1 == text.size()) return false;
  for (size_t i = 1; i < dot; ++i) {
    if (!isHexDigit(text[i])) return false;
  }
  for (size_t i = dot + 1; i < text.size(); ++i) {
    if (!isUserInfoChar(text[i])) return false;
  }
  return true;
}

bool isValidIPLiteral(std::string_view bracketed) {
  if (bracketed.size() < 2 || bracketed.front() != '[' || bracketed.back() != ']') return false;
  const std::string_view inner = bracketed.substr(1, bracketed.size() - 2);
  return isValidIPv6(inner) || isValidIPvFuture(inner);
}

// In place, so that a run of ".." costs what the segments it removes cost.
void removeLastSegment(std::string& path) {
  const size_t slash = path.rfind('/');
  path.resize(slash == std::string::npos ? 0 : slash);
}

// RFC 3986 section 5.2.4.
std::string removeDotSegments(std::string_view path) {
  std::string input(path);
  std::string output;
  size_t pos = 0;  // input is input.substr(pos)
  auto rest = [&]() { return std::string_view(input).substr(pos); };
  auto startsWith = [&](std::string_view prefix) { return rest().substr(0, prefix.size()) == prefix; };
  while (pos < input.size()) {
    if (startsWith("../")) {
      pos += 3;
    } else if (startsWith("./")) {
      pos += 2;
    } else if (startsWith("/./")) {
      pos += 2;
    } else if (rest() == "/.") {
      input = "/", pos = 0;
    } else if (startsWith("/../")) {
      pos += 3;
      removeLastSegment(output);
    } else if (rest() == "/..") {
      input = "/", pos = 0;
      removeLastSegment(output);
    } else if (rest() == "." || rest() == "..") {
      pos = input.size();
    } else {
      const size_t end = input.find('/', pos + 1);
      const size_t stop = end == std::string::npos ? input.size() : end;
      output.append(input, pos, stop - pos);
      pos = stop;
    }
  }
  return output;
}

// Dot segments of a relative path without a root: like removeDotSegments,
// except that ".." at the front stays, since there is no base to climb into.
std::string removeDotSegmentsOfRelativePath(std::string_view path) {
  std::vector<std::string_view> kept;
  bool endsAsFolder = false;
  size_t pos = 0;
  while (true) {
    size_t end = path.find('/', pos);
    const bool last = end == std::string_view::npos;
    if (last) end = path.size();
    const std::string_view segment = path.substr(pos, end - pos);
    if (segment == ".") {
      endsAsFolder = last;
    } else if (segment == "..") {
      if (!kept.empty() && kept.back() != "..") {
        kept.pop_back();
      } else {
        kept.push_back(segment);
      }
      endsAsFolder = last;
    } else {
      kept.push_back(segment);
    }
    if (last) break;
    pos = end + 1;
  }
  std::string out;
  for (size_t i = 0; i < kept.size(); ++i) {
    if (i > 0) out += '/';
    out += kept[i];
  }
  if (endsAsFolder && !out.empty()) out += '/';
  if (out.empty() && !path.empty()) out = "./";
  return out;
}

// Dot segments of a path that is rooted (has a scheme, an authority or a
// leading "/") go by RFC 3986; those of a relative path keep leading "..".
std::string removeDotSegmentsOfAnyPath(std::string_view path, bool rooted) {
  return rooted || (!path.empty() && path[0] == '/') ? removeDotSegments(path)
                                                     : removeDotSegmentsOfRelativePath(path);
}

// "A/B/c", decoded, as an escaped path; each piece is one segment.
std::string escapeSegments(const std::vector<String>& pieces) {
  std::string out;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) out += '/';
    out += escape(textToBytes(pieces[i]), isSegmentChar);
  }
  return out;
}

}  // namespace

// ---- Construction

CURI::CURI(const String& text) {
  const std::string s = textToBytes(text);
  size_t pos = 0;

  const size_t firstDelimiter = s.find_first_of(":/?#");
  if (firstDelimiter != std::string::npos && s[firstDelimiter] == ':') {
    const std::string scheme = s.substr(0, firstDelimiter);
    if (!isValidScheme(scheme)) throwBadURI("Bad scheme in URI", s);
    scheme_ = scheme;
    pos = firstDelimiter + 1;
  }

  if (s.compare(pos, 2, "//") == 0) {
    pos += 2;
    const size_t end = std::min(s.find_first_of("/?#", pos), s.size());
    std::string_view authority = std::string_view(s).substr(pos, end - pos);
    pos = end;

    const size_t at = authority.rfind('@');
    if (at != std::string_view::npos) {
      const std::string userInfo = checkComponent(authority.substr(0, at), isUserInfoChar, false, s);
      const size_t colon = userInfo.find(':');
      userNameEscaped_ = String(userInfo.substr(0, colon));
      if (colon != std::string::npos) userAuthInfoEscaped_ = String(userInfo.substr(colon + 1));
      authority = authority.substr(at + 1);
    }

    size_t hostEnd;
    if (!authority.empty() && authority[0] == '[') {
      hostEnd = authority.find(']');
      if (hostEnd == std::string_view::npos) throwBadURI("Bad host in URI", s);
      ++hostEnd;
      const std::string_view literal = authority.substr(0, hostEnd);
      if (!isValidIPLiteral(literal)) throwBadURI("Bad host in URI", s);
      hostEscaped_ = String(std::string(literal));
      if (hostEnd < authority.size() && authority[hostEnd] != ':') throwBadURI("Bad host in URI", s);
    } else {
      hostEnd = std::min(authority.find(':'), authority.size());
      hostEscaped_ = String(checkComponent(authority.substr(0, hostEnd), isRegNameChar, false, s));
    }

    if (hostEnd < authority.size()) {
      const std::string_view port = authority.substr(hostEnd + 1);
      int64_t value = port.empty() ? -1 : 0;
      for (char c : port) {
        if (!isDigit(c)) throwBadURI("Bad port in URI", s);
        value = value * 10 + (c - '0');
        if (value > kMaxPort) throwBadURI("Bad port in URI", s);
      }
      port_ = value;
    }
  }

  const size_t pathEnd = std::min(s.find_first_of("?#", pos), s.size());
  const std::string path =
      checkComponent(std::string_view(s).substr(pos, pathEnd - pos), isPathChar, true, s);
  path_ = String(path);
  pos = pathEnd;

  if (pos < s.size() && s[pos] == '?') {
    const size_t queryEnd = std::min(s.find('#', pos), s.size());
    query_ =
        String(checkComponent(std::string_view(s).substr(pos + 1, queryEnd - pos - 1), isQueryChar, true, s));
    pos = queryEnd;
  }
  if (pos < s.size() && s[pos] == '#') {
    fragmentEscaped_ = String(checkComponent(std::string_view(s).substr(pos + 1), isQueryChar, true, s));
  }
  updateDecoded();
}

CURI::CURI(const String& scheme, const String& path, const std::optional<String>& userName,
           const std::optional<String>& userAuthInfo, const std::optional<String>& host, int64_t port,
           const std::optional<String>& query, const std::optional<String>& fragment) {
  const std::string schemeText = textToBytes(scheme);
  if (!schemeText.empty() && !isValidScheme(schemeText)) throwBadURI("Bad scheme in URI", schemeText);
  scheme_ = scheme;
  if (port < -1 || port > kMaxPort) {
    throw CInvalidArgError(kContext, "Bad port in URI", CProps().add("port", port));
  }
  port_ = port;

  if (userName) userNameEscaped_ = String(escape(textToBytes(*userName), isUserNameChar));
  if (userAuthInfo) {
    userAuthInfoEscaped_ = String(escape(textToBytes(*userAuthInfo), isUserInfoChar));
    if (!userNameEscaped_) userNameEscaped_ = String();
  }
  if (host) {
    const std::string hostText = textToBytes(*host);
    if (!hostText.empty() && hostText[0] == '[') {
      if (!isValidIPLiteral(hostText)) throwBadURI("Bad host in URI", hostText);
      hostEscaped_ = String(hostText);
    } else {
      hostEscaped_ = String(escape(hostText, isRegNameChar));
    }
  } else if (userNameEscaped_ || port_ >= 0) {
    hostEscaped_ = String();
  }

  std::string pathText = escape(textToBytes(path), isPathChar);
  if (hostEscaped_ && !pathText.empty() && pathText[0] != '/') pathText.insert(0, "/");
  path_ = String(pathText);

  if (query) {
    const std::string queryText = textToBytes(*query);
    query_ = String(checkComponent(queryText, isQueryChar, true, queryText));
  }
  if (fragment) fragmentEscaped_ = String(escape(textToBytes(*fragment), isQueryChar));
  updateDecoded();
}

CURI::CURI(const TPathImpl<CUnixPathTraits>& path, bool normalize) {
  const String text = normalize ? path.toNormalized().getPath() : path.getPath();
  if (CUnixPathTraits::isAbsolute(text)) {
    scheme_ = "file";
    hostEscaped_ = String();
  }
  path_ = String(escape(textToBytes(text), isPathChar));
  updateDecoded();
}

CURI::CURI(const TPathImpl<CWindowsPathTraits>& path, bool normalize) {
  using Traits = CWindowsPathTraits;
  String text = Traits::normalizeSeparators(normalize ? path.toNormalized().getPath() : path.getPath());
  // "\\?\C:\x" and "\\?\UNC\server\share\x" are the long forms of "C:\x" and
  // "\\server\share\x".
  String longFormRest;
  if (text.StartsWith("\\\\?\\", &longFormRest)) {
    text = longFormRest.StartsWith("UNC\\") ? String("\\\\" + longFormRest.Mid(4)) : longFormRest;
  }

  const int rootLength = Traits::getRootLength(text);
  std::vector<String> pieces;
  if (rootLength < 0) {
    pieces = detail::splitAt(text, Traits::kSeparator);
  } else {
    pieces = detail::splitAt(text.Mid(rootLength), Traits::kSeparator);
    const String root = text.Left(rootLength);
    if (root.StartsWith("\\\\")) {
      const std::vector<String> rootPieces = detail::splitAt(root.Mid(2), Traits::kSeparator);
      hostEscaped_ = String(escape(textToBytes(rootPieces[0]), isRegNameChar));
      if (rootPieces.size() > 1 && !rootPieces[1].isEmpty()) pieces.insert(pieces.begin(), rootPieces[1]);
    } else if (rootLength == 2) {
      throw CInvalidArgError(kContext, "A drive-relative path has no URI",
                             CProps().add("path", path.getPath()));
    } else {
      hostEscaped_ = String();
      if (rootLength == 3) pieces.insert(pieces.begin(), root.Left(2));
    }
    scheme_ = "file";
  }
  std::string escaped = escapeSegments(pieces);
  if (hasAuthority()) escaped.insert(0, "/");
  path_ = String(escaped);
  updateDecoded();
}

void CURI::updateDecoded() {
  userName_ = percentDecodeOpt(userNameEscaped_);
  userAuthInfo_ = percentDecodeOpt(userAuthInfoEscaped_);
  host_ = hostEscaped_ && hostEscaped_->StartsWith("[") ? hostEscaped_ : percentDecodeOpt(hostEscaped_);
  fragment_ = percentDecodeOpt(fragmentEscaped_);
  unicodeQuery_.reset();
  if (query_) unicodeQuery_ = unescapeNonASCII(query_->toUTF8(), false);
}

// ---- Text

String CURI::toString(bool readable) const {
  std::string out;
  if (!scheme_.isEmpty()) out += scheme_.toUTF8() + ":";
  if (hasAuthority()) {
    out += "//";
    if (userNameEscaped_) {
      out += userNameEscaped_->toUTF8();
      if (userAuthInfoEscaped_) out += ":" + userAuthInfoEscaped_->toUTF8();
      out += "@";
    }
    out += hostEscaped_->toUTF8();
    if (port_ >= 0) out += ":" + std::to_string(port_);
  }
  const std::string path = path_.toUTF8();
  if (!hasAuthority() && path.compare(0, 2, "//") == 0) {
    // Without a prefix the path would read as an authority.
    out += "/.";
  } else if (scheme_.isEmpty() && !hasAuthority()) {
    // A colon in the first segment would make it read as a scheme.
    if (path.substr(0, path.find('/')).find(':') != std::string::npos) out += "./";
  }
  out += path;
  if (query_) out += "?" + query_->toUTF8();
  if (fragmentEscaped_) out += "#" + fragmentEscaped_->toUTF8();
  return readable ? unescapeNonASCII(out, true) : String(out);
}

bool CURI::isEmpty() const {
  return scheme_.isEmpty() && !hasAuthority() && path_.isEmpty() && !query_ && !fragmentEscaped_;
}

bool CURI::isAbsolute() const { return !scheme_.isEmpty(); }

String CURI::getPath() const { return percentDecode(path_.toUTF8()); }

String CURI::getName() const {
  // Segment by segment on the escaped path, so that an escaped "/" stays
  // inside its name, as operator<< puts it there.
  const std::string escaped = path_.toUTF8();
  std::string_view path = escaped;
  if (!path.empty() && path.back() == '/') path.remove_suffix(1);
  const size_t slash = path.rfind('/');
  return percentDecode(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

bool CURI::tryGetPathBytes(std::string& bytes) const {
  const std::string escaped = path_.toUTF8();
  bytes = percentDecodeBytes(escaped);
  // Every "/" left must have stood unescaped in the text.
  return std::count(bytes.begin(), bytes.end(), '/') == std::count(escaped.begin(), escaped.end(), '/') &&
         bytes.find('\0') == std::string::npos;
}

String CURI::getTitle() const {
  const String name = getName();
  return String(name.Left(name.length() - getExtension().length()));
}

String CURI::getExtension() const {
  const String name = getName();
  const size_t dot = name.rfind('.');
  // A leading dot makes a hidden name, not an extension.
  if (dot == String::npos || dot == 0) return String();
  return String(name.Mid(dot));
}

CURI CURI::getParent() const {
  CURI parent(*this);
  std::string path = path_.toUTF8();
  if (!path.empty() && path.back() == '/' && path != "/") path.pop_back();
  const size_t slash = path.rfind('/');
  path = slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
  parent.path_ = String(path);
  parent.query_.reset();
  parent.fragmentEscaped_.reset();
  parent.updateDecoded();
  return parent;
}

// ---- Normalization and resolution

CURI CURI::toNormalized() const {
  CURI result(*this);
  result.scheme_ = String(toLowerASCII(scheme_.toUTF8()));
  result.userNameEscaped_ = normalizeEscapesOpt(userNameEscaped_);
  result.userAuthInfoEscaped_ = normalizeEscapesOpt(userAuthInfoEscaped_);
  if (hostEscaped_)
    result.hostEscaped_ = String(toLowerOutsideEscapes(normalizeEscapes(hostEscaped_->toUTF8())));
  result.path_ =
      String(removeDotSegmentsOfAnyPath(normalizeEscapes(path_.toUTF8()), isAbsolute() || hasAuthority()));
  result.query_ = normalizeEscapesOpt(query_);
  result.fragmentEscaped_ = normalizeEscapesOpt(fragmentEscaped_);
  result.updateDecoded();
  return result;
}

CURI CURI::operator<<(const String& childName) const {
  CURI result(*this);
  std::string path = path_.toUTF8();
  if (!path.empty() ? path.back() != '/' : hasAuthority()) path += '/';
  path += escape(textToBytes(childName), isSegmentChar);
  result.path_ = String(path);
  result.query_.reset();
  result.fragmentEscaped_.reset();
  result.updateDecoded();
  return result;
}

// RFC 3986 section 5.2.2, with the merge of section 5.2.3.
CURI CURI::operator<<(const CURI& reference) const {
  const CURI& base = *this;
  CURI target(reference);
  if (!reference.scheme_.isEmpty()) {
    target.path_ = String(removeDotSegments(reference.path_.toUTF8()));
    return target;
  }
  target.scheme_ = base.scheme_;
  if (reference.hasAuthority()) {
    target.path_ = String(removeDotSegments(reference.path_.toUTF8()));
    return target;
  }
  target.userNameEscaped_ = base.userNameEscaped_;
  target.userAuthInfoEscaped_ = base.userAuthInfoEscaped_;
  target.hostEscaped_ = base.hostEscaped_;
  target.port_ = base.port_;
  const std::string referencePath = reference.path_.toUTF8();
  if (referencePath.empty()) {
    target.path_ = base.path_;
    if (!reference.query_) target.query_ = base.query_;
  } else if (referencePath[0] == '/') {
    target.path_ = String(removeDotSegments(referencePath));
  } else {
    const std::string basePath = base.path_.toUTF8();
    std::string merged;
    if (base.hasAuthority() && basePath.empty()) {
      merged = "/" + referencePath;
    } else {
      const size_t slash = basePath.rfind('/');
      merged = (slash == std::string::npos ? std::string() : basePath.substr(0, slash + 1)) + referencePath;
    }
    target.path_ = String(removeDotSegmentsOfAnyPath(merged, target.isAbsolute() || target.hasAuthority()));
  }
  target.updateDecoded();
  return target;
}

bool CURI::operator==(const CURI& other) const {
  return scheme_ == other.scheme_ && userNameEscaped_ == other.userNameEscaped_ &&
         userAuthInfoEscaped_ == other.userAuthInfoEscaped_ && hostEscaped_ == other.hostEscaped_ &&
         port_ == other.port_ && path_ == other.path_ && query_ == other.query_ &&
         fragmentEscaped_ == other.fragmentEscaped_;
}

}  // namespace kx
