#include "zarn/descriptor.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <unordered_map>

#include "kx/error.h"
#include "kx/log.h"
#include "kx/parse.h"
#include "kx/stream.h"
#include "descriptor/line_grammar.h"
#include "zarn/format_constants.h"

namespace zarn {
namespace {

const char kKeyEncoding[] = "encoding";
const char kKeyVersion[] = "version";
const char kKeyContentID[] = "CID";
const char kKeyParentContentID[] = "parentCID";
const char kKeyCreateType[] = "createType";
const char kKeyParentFileNameHint[] = "parentFileNameHint";
const char kKeyAdapterType[] = "ddb.adapterType";
const char kKeyGeometryCylinders[] = "ddb.geometry.cylinders";
const char kKeyGeometryHeads[] = "ddb.geometry.heads";
const char kKeyGeometrySectors[] = "ddb.geometry.sectors";
const char kKeyCreateExtentFilesOnDemand[] = "kxCreateExtentFilesOnDemand";
const char kKeyEncryptionAlgorithm[] = "kxEncAlg";
const char kKeyEncryptionIV[] = "kxEncIV";
const char kKeyEncryptionKeyDerivationAlgorithm[] = "kxEncKeyDerivAlg";
const char kKeyEncryptionKeyDerivationSalt[] = "kxEncKeyDerivSalt";
const char kKeyEncryptedEncryptionKey[] = "kxEncEncKey";
const char kKeyEncryptionKeyHashAlgorithm[] = "kxEncKeyHashAlg";
const char kKeyEncryptionKeyHash[] = "kxEncKeyHash";

const char kDDBPrefix[] = "ddb.";

kx::String formatHex32(uint32_t value) { return kx::String::Format("%x", value); }

kx::String formatInt64(int64_t value) { return kx::String(std::to_string(value)); }

kx::TBuffer<unsigned char> decodeHexValue(const kx::String& text) {
  kx::TBuffer<unsigned char> bytes;
  kx::hexDecode(text, bytes);
  return bytes;
}

kx::String fromUTF8(std::string_view text) { return kx::String::fromUTF8(text.data(), text.size()); }
kx::String fromLatin1(std::string_view text) { return wxString::From8BitData(text.data(), text.size()); }

// A number from the file that its type can't hold is damaged data, not a
// number to cut down to size.
[[noreturn]] void throwOutOfRange(const char* name, const kx::String& text) {
  throw kx::CIOError(kx::IOERR_DAMAGED_DATA,
                     kx::String("VMDK descriptor value '") + name + "' is out of range: " + text,
                     kx::CProps().add("name", name).add("text", text));
}

uint32_t parseContentID(const char* name, const kx::String& text, bool allowPrefix) {
  const auto value = static_cast<uint64_t>(kx::parseHexInt64(text, allowPrefix));
  if (value > 0xFFFFFFFFu) throwOutOfRange(name, text);
  return static_cast<uint32_t>(value);
}

// ---- Line words (see lines_ in the header).

enum LineKind : uint32_t { kObjectLine = 0, kGenericLine = 1, kNameValueLine = 2, kExtentLine = 3 };
constexpr uint32_t kKindShift = 30;
constexpr uint32_t kPayloadMask = (uint32_t{1} << kKindShift) - 1;
// Bounds the text that a parse keeps (at most twice the bytes, plus a few a
// line) below the reach of an offset.
constexpr size_t kMaxTextBytes = size_t{128} << 20;

uint32_t makeLineWord(LineKind kind, size_t payload) {
  if (payload > kPayloadMask) throw kx::CError("Internal error: VMDK descriptor line store overflow.");
  return (static_cast<uint32_t>(kind) << kKindShift) | static_cast<uint32_t>(payload);
}
LineKind getLineKind(uint32_t word) { return static_cast<LineKind>(word >> kKindShift); }
size_t getLinePayload(uint32_t word) { return word & kPayloadMask; }

// The written form of a line kept as text, without its "\n".
std::string_view getLineText(const std::string& text, uint32_t word) {
  const size_t offset = getLinePayload(word);
  const char* start = text.data() + offset;
  const auto* end = static_cast<const char*>(std::memchr(start, '\n', text.size() - offset));
  return std::string_view(start, static_cast<size_t>(end - start));
}

bool isASCII(std::string_view text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

bool equalsIgnoringASCIICase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

// Characters of UTF-8 text: lower-casing keeps their count.
size_t countCharacters(std::string_view utf8) {
  size_t count = 0;
  for (char c : utf8) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return count;
}

// Names compared as lower-cased text; most names are ASCII and take the
// short way.
class CNameMatcher {
 public:
  explicit CNameMatcher(const kx::String& name)
      : name_(name), utf8_(name.toUTF8()), ascii_(isASCII(utf8_)), characters_(name.length()) {}

  bool matches(std::string_view utf8) {
    if (ascii_ && isASCII(utf8)) return equalsIgnoringASCIICase(utf8, utf8_);
    if (countCharacters(utf8) != characters_) return false;
    return matches(fromUTF8(utf8));
  }
  bool matches(const kx::String& name) { return name.length() == characters_ && name.Lower() == getLower(); }

 private:
  const kx::String& getLower() {
    if (!haveLower_) lower_ = name_.Lower(), haveLower_ = true;
    return lower_;
  }

  const kx::String& name_;
  const std::string utf8_;
  const bool ascii_;
  const size_t characters_;
  kx::String lower_;
  bool haveLower_ = false;
};

// The first "encoding" value of the text, as the file spells it, read one
// byte a character: the declaration has to be found before the text can be
// decoded.
std::string_view findDeclaredEncoding(std::string_view text) {
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = text.substr(pos, end - pos);
    VMDKNameValueLine parsed;
    if ((line.empty() || line[0] != '#') && tryParseVMDKNameValueLine(line, parsed) &&
        equalsIgnoringASCIICase(parsed.name, kKeyEncoding)) {
      return parsed.value;
    }
    pos = end + 1;
  }
  return std::string_view();
}

}  // namespace

// ---------------------------------------------------------------------------
// Entries

kx::P<CVMDKDescriptorEntry> CVMDKDescriptor::CGenericEntry::cloneDescriptorEntry() const {
  return kx::create<CGenericEntry>(line_);
}

kx::P<CVMDKDescriptor::CNameValueEntry> CVMDKDescriptor::CNameValueEntry::tryParseDescriptorLine(
    const kx::String& line) {
  std::string utf8;
  VMDKNameValueLine parsed;
  if (!tryAppendUTF8(utf8, line) || !tryParseVMDKNameValueLine(utf8, parsed)) return nullptr;
  return kx::create<CNameValueEntry>(fromUTF8(parsed.name), fromUTF8(parsed.value), parsed.quoted);
}

kx::String CVMDKDescriptor::CNameValueEntry::toString() const {
  kx::String text = name_;
  text += name_.StartsWith(kDDBPrefix) ? " = " : "=";
  if (quoted_) {
    text += "\"";
    text += value_;
    text += "\"";
  } else {
    text += value_;
  }
  return text;
}

kx::P<CVMDKDescriptorEntry> CVMDKDescriptor::CNameValueEntry::cloneDescriptorEntry() const {
  return kx::create<CNameValueEntry>(name_, value_, quoted_);
}

// ---------------------------------------------------------------------------
// Document

CVMDKDescriptor::CVMDKDescriptor() = default;

CVMDKDescriptor::CVMDKDescriptor(const kx::TBuffer<unsigned char>& data) {
  const char* bytes = reinterpret_cast<const char*>(data.getData());
  const size_t used = data.getUsed();
  const void* zero = used ? std::memchr(bytes, 0, used) : nullptr;
  const std::string_view text(bytes, zero ? static_cast<size_t>(static_cast<const char*>(zero) - bytes) : used);
  if (text.size() > kMaxTextBytes) {
    throw kx::CInvalidArgError("CVMDKDescriptor", "VMDK descriptor text too long",
                               kx::CProps().add("size", static_cast<uint64_t>(text.size())));
  }

  const std::string_view declaredBytes = findDeclaredEncoding(text);
  std::string encoding;
  for (char c : declaredBytes) {
    if (c == '_' || c == '-') continue;
    encoding += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  const kx::String declared = fromLatin1(declaredBytes);

  bool latin1 = true;
  if (encoding.empty() || encoding == "utf8") {
    // Only the shortest forms are taken as UTF-8: a decoder that accepted an
    // overlong zero or a value above U+10FFFF would give text that has no
    // UTF-8 form to store back.
    const size_t invalid = findInvalidUTF8(text);
    latin1 = invalid != std::string_view::npos;
    if (latin1) {
      const kx::CError error("Invalid UTF-8 byte sequence in VMDK descriptor text.", "", -1,
                             kx::CProps().add("offset", static_cast<uint64_t>(invalid)));
      kx::logWarning(error,
                     kx::String("Ignoring VMDK descriptor decoding error (encoding: '") + declared +
                         "'. Using Latin-1 encoding instead.",
                     "");
    }
  } else if (encoding != "latin1" && encoding != "iso88591") {
    kx::logWarning(kx::String("Unknown VMDK descriptor encoding '") + declared + "'. Using Latin-1 instead.");
  }
  parseText(text, latin1);
}

CVMDKDescriptor::CVMDKDescriptor(const CVMDKDescriptor& other) : CBase() { *this = other; }

CVMDKDescriptor& CVMDKDescriptor::operator=(const CVMDKDescriptor& other) {
  if (this == &other) return *this;
  kx::TArray<kx::P<CVMDKDescriptorEntry>> objects;
  objects.reserve(other.objects_.size());
  for (const auto& entry : other.objects_) objects.push_back(entry->cloneDescriptorEntry());
  std::vector<uint32_t> lines(other.lines_);
  std::string text(other.text_);
  lines_.swap(lines);
  text_.swap(text);
  objects_.swap(objects);
  entries_.clear();
  headerInsertIndex_ = other.headerInsertIndex_;
  return *this;
}

CVMDKDescriptor::~CVMDKDescriptor() = default;

void CVMDKDescriptor::parseText(std::string_view text, bool latin1) {
  // A text that ends in "\n" has no line behind it.
  size_t count = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  if (text.empty() || text.back() == '\n') --count;
  lines_.clear();
  // A little room, so that the lines a store or a change of keys adds don't
  // copy millions of words.
  lines_.reserve(count + 16);
  text_.clear();
  // Latin-1 takes up to two bytes a character in UTF-8, and the written form
  // of a line up to three more than the file's (`ddb.x="` becomes
  // `ddb.x = ""`), plus its "\n": reserving this much copies nothing later.
  text_.reserve((latin1 ? 2 : 1) * text.size() + 4 * count);
  headerInsertIndex_ = 0;
  bool seenExtent = false;
  size_t pos = 0;
  for (size_t i = 0; i < count; ++i) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;

    const size_t offset = text_.size();
    LineKind kind = kGenericLine;
    VMDKNameValueLine nameValue;
    VMDKExtentLine extent;
    if (!line.empty() && line[0] == '#') {
      appendAsUTF8(text_, line, latin1);
    } else if (tryParseVMDKNameValueLine(line, nameValue)) {
      kind = kNameValueLine;
      appendVMDKNameValueLine(text_, nameValue, latin1);
    } else if (tryParseVMDKExtentLine(line, extent)) {
      kind = kExtentLine;
      appendVMDKExtentLine(text_, extent, latin1);
    } else {
      appendAsUTF8(text_, line, latin1);
    }
    text_ += '\n';
    lines_.push_back(makeLineWord(kind, offset));

    if (kind == kExtentLine) seenExtent = true;
    if (kind == kNameValueLine && !seenExtent) headerInsertIndex_ = static_cast<int>(i) + 1;
  }
}

CVMDKDescriptorEntry* CVMDKDescriptor::getLineObject(size_t index) const {
  const uint32_t word = lines_[index];
  const LineKind kind = getLineKind(word);
  if (kind == kObjectLine) return objects_[getLinePayload(word)].get();

  const std::string_view line = getLineText(text_, word);
  kx::P<CVMDKDescriptorEntry> entry;
  VMDKNameValueLine nameValue;
  VMDKExtentLine extent;
  if (kind == kNameValueLine && tryParseVMDKNameValueLine(line, nameValue)) {
    entry = kx::create<CNameValueEntry>(fromUTF8(nameValue.name), fromUTF8(nameValue.value), nameValue.quoted);
  } else if (kind == kExtentLine && tryParseVMDKExtentLine(line, extent)) {
    entry = kx::create<CVMDKExtentInfo>(fromUTF8(extent.access), extent.sizeSectors, fromUTF8(extent.type),
                                        fromUTF8(extent.filename), extent.offset);
  } else if (kind == kGenericLine) {
    entry = kx::create<CGenericEntry>(fromUTF8(line));
  } else {
    throw kx::CError("Internal error: a VMDK descriptor line no longer reads as what it was.");
  }
  lines_[index] = makeLineWord(kObjectLine, objects_.size());
  objects_.push_back(entry);
  return entry.get();
}

size_t CVMDKDescriptor::findValueLine(const kx::String& name) const {
  CNameMatcher matcher(name);
  for (size_t i = 0; i < lines_.size(); ++i) {
    const uint32_t word = lines_[i];
    const LineKind kind = getLineKind(word);
    if (kind == kNameValueLine) {
      // The written form has the name right before the first "=" (or " = ").
      const std::string_view line = getLineText(text_, word);
      std::string_view lineName = line.substr(0, line.find('='));
      if (!lineName.empty() && lineName.back() == ' ') lineName.remove_suffix(1);
      if (matcher.matches(lineName)) return i;
    } else if (kind == kObjectLine) {
      const auto* nameValue = dynamic_cast<const CNameValueEntry*>(objects_[getLinePayload(word)].get());
      if (nameValue && matcher.matches(nameValue->getName())) return i;
    }
  }
  return std::string::npos;
}

kx::String CVMDKDescriptor::getLineValue(size_t index) const {
  const uint32_t word = lines_[index];
  if (getLineKind(word) == kObjectLine) {
    return static_cast<const CNameValueEntry*>(objects_[getLinePayload(word)].get())->getValue();
  }
  VMDKNameValueLine parsed;
  tryParseVMDKNameValueLine(getLineText(text_, word), parsed);
  return fromUTF8(parsed.value);
}

bool CVMDKDescriptor::isExtentLine(size_t index) const {
  const uint32_t word = lines_[index];
  const LineKind kind = getLineKind(word);
  return kind == kExtentLine ||
         (kind == kObjectLine && dynamic_cast<CVMDKExtentInfo*>(objects_[getLinePayload(word)].get()));
}

size_t CVMDKDescriptor::getTextUTF8(std::string& out) const {
  out.reserve(text_.size() + 64 * objects_.size());
  for (size_t i = 0; i < lines_.size(); ++i) {
    const uint32_t word = lines_[i];
    if (getLineKind(word) != kObjectLine) {
      out += getLineText(text_, word);
      out += '\n';
      continue;
    }
    const size_t lineStart = out.size();
    if (!tryAppendUTF8(out, objects_[getLinePayload(word)]->toString()) ||
        out.find('\0', lineStart) != std::string::npos) {
      return i;
    }
    out += '\n';
  }
  return std::string::npos;
}

kx::String CVMDKDescriptor::toString() const {
  std::string utf8;
  if (getTextUTF8(utf8) == std::string::npos) return fromUTF8(utf8);
  // A line set through the interface holds what UTF-8 can't carry; the text
  // still shows it.
  kx::String text;
  for (size_t i = 0; i < lines_.size(); ++i) {
    const uint32_t word = lines_[i];
    if (getLineKind(word) == kObjectLine) {
      text += objects_[getLinePayload(word)]->toString();
    } else {
      text += fromUTF8(getLineText(text_, word));
    }
    text += "\n";
  }
  return text;
}

void CVMDKDescriptor::store(kx::IOutStream& stream, int size, const kx::TBuffer<unsigned char>& padBuffer) {
  setEncodingUTF8();
  std::string utf8;
  const size_t badLine = getTextUTF8(utf8);
  if (badLine != std::string::npos) {
    throw kx::CInvalidArgError("CVMDKDescriptor::store",
                               "VMDK descriptor line holds a zero character or one that has no UTF-8 form",
                               kx::CProps().add("line", static_cast<uint64_t>(badLine)));
  }
  const size_t length = utf8.size();
  if (static_cast<int64_t>(length) > size) {
    throw kx::CError(
        kx::String("Internal error: actual VMDK descriptor size exceeds target size (actual size: ") +
        formatInt64(static_cast<int64_t>(length)) + ", target size: " + formatInt64(size) + ")");
  }
  const int rest = size - static_cast<int>(length);
  if (static_cast<int64_t>(padBuffer.getUsed()) < rest) {
    throw kx::CError(kx::String("Internal error: pad buffer too small (size: ") +
                     formatInt64(static_cast<int64_t>(padBuffer.getUsed())) +
                     ", needed: " + formatInt64(rest));
  }
  stream.write(utf8.data(), static_cast<int>(length), nullptr);
  vmdkWritePadding(stream, rest, padBuffer);
}

void CVMDKDescriptor::setEncodingUTF8() { setValue(kKeyEncoding, "UTF-8", true, true); }

kx::P<CVMDKDescriptor::CNameValueEntry> CVMDKDescriptor::findValueEntry(const kx::String& name) const {
  const size_t index = findValueLine(name);
  if (index == std::string::npos) return nullptr;
  return kx::P<CNameValueEntry>::share(static_cast<CNameValueEntry*>(getLineObject(index)));
}

kx::String CVMDKDescriptor::getValue(const kx::String& name) const {
  const size_t index = findValueLine(name);
  if (index == std::string::npos) throw kx::CError(kx::String("VMDK descriptor value '") + name + "' not found.");
  return getLineValue(index);
}

bool CVMDKDescriptor::tryGetValue(const kx::String& name, kx::String& value) const {
  const size_t index = findValueLine(name);
  value = index != std::string::npos ? getLineValue(index) : kx::String();
  return index != std::string::npos;
}

bool CVMDKDescriptor::hasValue(const kx::String& name) const { return findValueLine(name) != std::string::npos; }

void CVMDKDescriptor::setValue(const kx::String& name, const kx::String& value, bool quoted, bool inHeader) {
  const size_t index = findValueLine(name);
  if (index != std::string::npos) {
    static_cast<CNameValueEntry*>(getLineObject(index))->setValue(value);
    return;
  }
  kx::P<CVMDKDescriptorEntry> entry = kx::create<CNameValueEntry>(name, value, quoted);
  if (inHeader) {
    insertAtHeader(entry);
  } else {
    insertLine(lines_.size(), entry);
  }
}

void CVMDKDescriptor::insertLine(size_t index, const kx::P<CVMDKDescriptorEntry>& entry) {
  const uint32_t word = makeLineWord(kObjectLine, objects_.size());
  objects_.push_back(entry);
  try {
    lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(index), word);
  } catch (...) {
    objects_.pop_back();
    throw;
  }
}

void CVMDKDescriptor::insertAtHeader(const kx::P<CVMDKDescriptorEntry>& entry) {
  const size_t index = std::min(static_cast<size_t>(std::max(headerInsertIndex_, 0)), lines_.size());
  insertLine(index, entry);
  headerInsertIndex_ = static_cast<int>(index) + 1;
}

void CVMDKDescriptor::addGenericLine(const kx::String& line, bool inHeader) {
  kx::P<CVMDKDescriptorEntry> entry = kx::create<CGenericEntry>(line);
  if (inHeader) {
    insertAtHeader(entry);
  } else {
    insertLine(lines_.size(), entry);
  }
}

void CVMDKDescriptor::addExtentEntry(CVMDKExtentInfo* extent) {
  size_t index = 0;
  while (index < lines_.size() && !isExtentLine(index)) ++index;
  while (index < lines_.size() && isExtentLine(index)) ++index;
  insertLine(index, kx::P<CVMDKExtentInfo>::share(extent));
}

void CVMDKDescriptor::getExtentEntries(kx::TArray<kx::P<CVMDKExtentInfo>>& extents) const {
  for (size_t i = 0; i < lines_.size(); ++i) {
    if (isExtentLine(i)) {
      extents.push_back(kx::P<CVMDKExtentInfo>::share(static_cast<CVMDKExtentInfo*>(getLineObject(i))));
    }
  }
}

bool CVMDKDescriptor::correctSingleExtentFilename(const kx::String& name) {
  kx::TArray<kx::P<CVMDKExtentInfo>> extents;
  getExtentEntries(extents);
  if (extents.size() != 1 || extents[0]->getFilename() == name || name.isEmpty()) return false;
  for (const wxUniChar c : {wxUniChar('"'), wxUniChar('\\'), wxUniChar('\n'), wxUniChar('\r'), wxUniChar(0)}) {
    if (name.find(c) != kx::String::npos) return false;
  }
  extents[0]->setFilename(name);
  return true;
}

const kx::TArray<kx::P<CVMDKDescriptorEntry>>& CVMDKDescriptor::getEntries() const {
  entries_.clear();
  entries_.reserve(lines_.size());
  // Generic lines can't change, so lines of the same text share one object:
  // millions of empty lines cost a pointer each, not an object each.
  std::unordered_map<std::string_view, uint32_t> generic;
  for (size_t i = 0; i < lines_.size(); ++i) {
    if (getLineKind(lines_[i]) == kGenericLine) {
      const auto found = generic.emplace(getLineText(text_, lines_[i]), 0);
      if (found.second) {
        getLineObject(i);
        found.first->second = lines_[i];
      } else {
        lines_[i] = found.first->second;
      }
    }
    entries_.push_back(kx::P<CVMDKDescriptorEntry>::share(getLineObject(i)));
  }
  return entries_;
}

// ---------------------------------------------------------------------------
// Typed values

int CVMDKDescriptor::getVersion() const {
  const kx::String text = getValue(kKeyVersion);
  const int64_t version = kx::parseInt64(text, false);
  if (version < std::numeric_limits<int>::min() || version > std::numeric_limits<int>::max()) {
    throwOutOfRange(kKeyVersion, text);
  }
  return static_cast<int>(version);
}

void CVMDKDescriptor::setVersion(int version) { setValue(kKeyVersion, formatInt64(version), false, true); }

uint32_t CVMDKDescriptor::getContentID() const {
  return parseContentID(kKeyContentID, getValue(kKeyContentID), false);
}

void CVMDKDescriptor::setContentID(uint32_t contentID) {
  setValue(kKeyContentID, formatHex32(contentID), false, true);
}

uint32_t CVMDKDescriptor::getParentContentID() const {
  kx::String text;
  if (!tryGetValue(kKeyParentContentID, text)) return kNoParentContentID;
  return parseContentID(kKeyParentContentID, text, true);
}

void CVMDKDescriptor::setParentContentID(uint32_t contentID) {
  setValue(kKeyParentContentID, formatHex32(contentID), false, true);
}

kx::String CVMDKDescriptor::getCreateType() const { return getValue(kKeyCreateType); }

void CVMDKDescriptor::setCreateType(const kx::String& createType) {
  setValue(kKeyCreateType, createType, true, true);
}

kx::String CVMDKDescriptor::getParentFileNameHint() const { return getValue(kKeyParentFileNameHint); }

bool CVMDKDescriptor::tryGetParentFileNameHint(kx::String& hint) const {
  return tryGetValue(kKeyParentFileNameHint, hint);
}

void CVMDKDescriptor::setParentFileNameHint(const kx::String& hint) {
  setValue(kKeyParentFileNameHint, hint, true, true);
}

kx::String CVMDKDescriptor::getAdapterType() const { return getValue(kKeyAdapterType); }

void CVMDKDescriptor::setAdapterType(const kx::String& adapterType) {
  setValue(kKeyAdapterType, adapterType, true, false);
}

int64_t CVMDKDescriptor::getGeometryCylinders() const {
  return kx::parseInt64(getValue(kKeyGeometryCylinders), false);
}

void CVMDKDescriptor::setGeometryCylinders(int64_t cylinders) {
  setValue(kKeyGeometryCylinders, formatInt64(cylinders), true, false);
}

int64_t CVMDKDescriptor::getGeometryHeads() const {
  return kx::parseInt64(getValue(kKeyGeometryHeads), false);
}

void CVMDKDescriptor::setGeometryHeads(int64_t heads) {
  setValue(kKeyGeometryHeads, formatInt64(heads), true, false);
}

int64_t CVMDKDescriptor::getGeometrySectors() const {
  return kx::parseInt64(getValue(kKeyGeometrySectors), false);
}

void CVMDKDescriptor::setGeometrySectors(int64_t sectors) {
  setValue(kKeyGeometrySectors, formatInt64(sectors), true, false);
}

bool CVMDKDescriptor::getKxCreateExtentFilesOnDemand() const {
  kx::String text;
  if (!tryGetValue(kKeyCreateExtentFilesOnDemand, text)) return false;
  return kx::parseBool(text);
}

void CVMDKDescriptor::setKxCreateExtentFilesOnDemand(bool onDemand) {
  setValue(kKeyCreateExtentFilesOnDemand, onDemand ? "true" : "false", true, true);
}

kx::String CVMDKDescriptor::getKxEncryptionAlgorithm() const {
  kx::String text;
  tryGetValue(kKeyEncryptionAlgorithm, text);
  return text;
}

void CVMDKDescriptor::setKxEncryptionAlgorithm(const kx::String& algorithm) {
  setValue(kKeyEncryptionAlgorithm, algorithm, false, true);
}

kx::TBuffer<unsigned char> CVMDKDescriptor::getKxEncryptionIV() const {
  return decodeHexValue(getValue(kKeyEncryptionIV));
}

void CVMDKDescriptor::setKxEncryptionIV(const kx::TBuffer<unsigned char>& iv) {
  setValue(kKeyEncryptionIV, kx::hexEncode(iv, false), false, true);
}

kx::String CVMDKDescriptor::getKxEncryptionKeyDerivationAlgorithm() const {
  return getValue(kKeyEncryptionKeyDerivationAlgorithm);
}

void CVMDKDescriptor::setKxEncryptionKeyDerivationAlgorithm(const kx::String& algorithm) {
  setValue(kKeyEncryptionKeyDerivationAlgorithm, algorithm, false, true);
}

kx::TBuffer<unsigned char> CVMDKDescriptor::getKxEncryptionKeyDerivationSalt() const {
  return decodeHexValue(getValue(kKeyEncryptionKeyDerivationSalt));
}

void CVMDKDescriptor::setKxEncryptionKeyDerivationSalt(const kx::TBuffer<unsigned char>& salt) {
  setValue(kKeyEncryptionKeyDerivationSalt, kx::hexEncode(salt, false), false, true);
}

kx::TBuffer<unsigned char> CVMDKDescriptor::getKxEncryptedEncryptionKey() const {
  return decodeHexValue(getValue(kKeyEncryptedEncryptionKey));
}

void CVMDKDescriptor::setKxEncryptedEncryptionKey(const kx::TBuffer<unsigned char>& key) {
  setValue(kKeyEncryptedEncryptionKey, kx::hexEncode(key, false), false, true);
}

kx::String CVMDKDescriptor::getKxEncryptionKeyHashAlgorithm() const {
  return getValue(kKeyEncryptionKeyHashAlgorithm);
}

void CVMDKDescriptor::setKxEncryptionKeyHashAlgorithm(const kx::String& algorithm) {
  setValue(kKeyEncryptionKeyHashAlgorithm, algorithm, false, true);
}

kx::TBuffer<unsigned char> CVMDKDescriptor::getKxEncryptionKeyHash() const {
  return decodeHexValue(getValue(kKeyEncryptionKeyHash));
}

void CVMDKDescriptor::setKxEncryptionKeyHash(const kx::TBuffer<unsigned char>& hash) {
  setValue(kKeyEncryptionKeyHash, kx::hexEncode(hash, false), false, true);
}

// ---------------------------------------------------------------------------

void vmdkWritePadding(kx::IOutStream& stream, int size, const kx::TBuffer<unsigned char>& zeros) {
  if (size <= 0) return;
  if (zeros.isEmpty()) throw kx::CError("Internal error: vmdkWritePadding was called with an empty buffer.");
  const size_t piece = zeros.getUsed();
  size_t left = static_cast<size_t>(size);
  while (left > 0) {
    const size_t count = std::min(left, piece);
    stream.write(zeros.getData(), static_cast<int>(count), nullptr);
    left -= count;
  }
}

}  // namespace zarn
