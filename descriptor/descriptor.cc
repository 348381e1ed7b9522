#include "zarn/descriptor.h"

#include <wx/tokenzr.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "kx/error.h"
#include "kx/log.h"
#include "kx/parse.h"
#include "kx/stream.h"
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

// Raises kx::CError when the bytes are no valid UTF-8. wxString::FromUTF8
// doesn't raise but hands back an empty text for them.
kx::String decodeUTF8(const char* data, size_t length) {
  kx::String text = kx::String::fromUTF8(data, length);
  if (length > 0 && text.isEmpty()) {
    throw kx::CError("Invalid UTF-8 byte sequence in VMDK descriptor text.");
  }
  return text;
}

kx::TBuffer<unsigned char> decodeHexValue(const kx::String& text) {
  kx::TBuffer<unsigned char> bytes;
  kx::hexDecode(text, bytes);
  return bytes;
}

kx::String decodeLatin1(const char* data, size_t length) { return wxString::From8BitData(data, length); }

}  // namespace

// ---------------------------------------------------------------------------
// Entries

kx::P<CVMDKDescriptorEntry> CVMDKDescriptor::CGenericEntry::cloneDescriptorEntry() const {
  return kx::create<CGenericEntry>(line_);
}

kx::P<CVMDKDescriptor::CNameValueEntry> CVMDKDescriptor::CNameValueEntry::tryParseDescriptorLine(
    const kx::String& line) {
  const size_t equals = line.find('=');
  if (equals == kx::String::npos) return nullptr;
  kx::String name = line.Left(equals);
  kx::String value = line.Mid(equals + 1);
  name.Trim(true).Trim(false);
  value.Trim(true).Trim(false);
  if (name.isEmpty() || name.find(' ') != kx::String::npos) return nullptr;
  bool quoted = false;
  if (!value.isEmpty() && value.StartsWith("\"") && value.EndsWith("\"")) {
    quoted = true;
    // A lone double quote is an empty quoted value.
    value = value.length() >= 2 ? kx::String(value.Mid(1, value.length() - 2)) : kx::String();
  }
  return kx::create<CNameValueEntry>(name, value, quoted);
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
  const size_t length = zero ? static_cast<size_t>(static_cast<const char*>(zero) - bytes) : used;

  // The encoding is declared inside the text itself, so a first reading one
  // byte per character finds the declaration; the pass that counts follows.
  parseText(decodeLatin1(bytes, length));
  kx::String declared;
  tryGetValue(kKeyEncoding, declared);
  entries_.clear();
  headerInsertIndex_ = 0;

  kx::String encoding = declared.Lower();
  encoding.Replace("_", "");
  encoding.Replace("-", "");

  kx::String text;
  if (encoding.isEmpty() || encoding == "utf8") {
    try {
      text = decodeUTF8(bytes, length);
    } catch (const kx::CError& error) {
      kx::logWarning(error,
                     kx::String("Ignoring VMDK descriptor decoding error (encoding: '") + declared +
                         "'. Using Latin-1 encoding instead.",
                     "");
      text = decodeLatin1(bytes, length);
    }
  } else if (encoding == "latin1" || encoding == "iso88591") {
    text = decodeLatin1(bytes, length);
  } else {
    kx::logWarning(kx::String("Unknown VMDK descriptor encoding '") + declared + "'. Using Latin-1 instead.");
    text = decodeLatin1(bytes, length);
  }
  parseText(text);
}

CVMDKDescriptor::CVMDKDescriptor(const CVMDKDescriptor& other) : CBase() { *this = other; }

CVMDKDescriptor& CVMDKDescriptor::operator=(const CVMDKDescriptor& other) {
  if (this == &other) return *this;
  kx::TArray<kx::P<CVMDKDescriptorEntry>> copies;
  copies.reserve(other.entries_.size());
  for (const auto& entry : other.entries_) copies.push_back(entry->cloneDescriptorEntry());
  entries_.swap(copies);
  headerInsertIndex_ = other.headerInsertIndex_;
  return *this;
}

CVMDKDescriptor::~CVMDKDescriptor() = default;

void CVMDKDescriptor::parseText(const kx::String& text) {
  wxStringTokenizer tokenizer(text, "\n", wxTOKEN_RET_EMPTY_ALL);
  while (tokenizer.HasMoreTokens()) {
    const kx::String line = tokenizer.GetNextToken();
    if (line.StartsWith("#")) {
      entries_.push_back(kx::create<CGenericEntry>(line));
    } else if (kx::P<CNameValueEntry> nameValue = CNameValueEntry::tryParseDescriptorLine(line)) {
      entries_.push_back(nameValue);
    } else if (kx::P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParseDescriptorLine(line)) {
      entries_.push_back(extent);
    } else {
      entries_.push_back(kx::create<CGenericEntry>(line));
    }
  }
  // A text that ends in "\n" yields one empty line more than it holds.
  if (!entries_.empty() && entries_.back()->toString().isEmpty()) entries_.pop_back();

  headerInsertIndex_ = 0;
  for (size_t i = 0; i < entries_.size(); ++i) {
    CVMDKDescriptorEntry* entry = entries_[i].get();
    if (dynamic_cast<CVMDKExtentInfo*>(entry)) break;
    if (dynamic_cast<CNameValueEntry*>(entry)) headerInsertIndex_ = static_cast<int>(i) + 1;
  }
}

kx::String CVMDKDescriptor::toString() const {
  kx::String text;
  for (const auto& entry : entries_) {
    text += entry->toString();
    text += "\n";
  }
  return text;
}

void CVMDKDescriptor::store(kx::IOutStream& stream, int size, const kx::TBuffer<unsigned char>& padBuffer) {
  setEncodingUTF8();
  const std::string utf8 = toString().toUTF8();
  const size_t length = std::strlen(utf8.c_str());
  if (static_cast<int64_t>(length) > size) {
    throw kx::CError(
        kx::String("Internal error: actual VMDK descriptor size exceeds target size (actual size: ") +
        formatInt64(static_cast<int64_t>(length)) + ", target size: " + formatInt64(size));
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
  const kx::String wanted = name.Lower();
  for (const auto& entry : entries_) {
    auto* nameValue = dynamic_cast<CNameValueEntry*>(entry.get());
    if (nameValue && nameValue->getName().Lower() == wanted) return kx::P<CNameValueEntry>::share(nameValue);
  }
  return nullptr;
}

kx::String CVMDKDescriptor::getValue(const kx::String& name) const {
  kx::P<CNameValueEntry> entry = findValueEntry(name);
  if (!entry) throw kx::CError(kx::String("VMDK descriptor value '") + name + "' not found.");
  return entry->getValue();
}

bool CVMDKDescriptor::tryGetValue(const kx::String& name, kx::String& value) const {
  kx::P<CNameValueEntry> entry = findValueEntry(name);
  value = entry ? entry->getValue() : kx::String();
  return static_cast<bool>(entry);
}

bool CVMDKDescriptor::hasValue(const kx::String& name) const {
  return static_cast<bool>(findValueEntry(name));
}

void CVMDKDescriptor::setValue(const kx::String& name, const kx::String& value, bool quoted, bool inHeader) {
  if (kx::P<CNameValueEntry> entry = findValueEntry(name)) {
    entry->setValue(value);
    return;
  }
  kx::P<CVMDKDescriptorEntry> entry = kx::create<CNameValueEntry>(name, value, quoted);
  if (inHeader) {
    insertAtHeader(entry);
  } else {
    entries_.push_back(entry);
  }
}

void CVMDKDescriptor::insertAtHeader(const kx::P<CVMDKDescriptorEntry>& entry) {
  const size_t index = std::min(static_cast<size_t>(std::max(headerInsertIndex_, 0)), entries_.size());
  entries_.insert(entries_.begin() + static_cast<std::ptrdiff_t>(index), entry);
  headerInsertIndex_ = static_cast<int>(index) + 1;
}

void CVMDKDescriptor::addGenericLine(const kx::String& line, bool inHeader) {
  kx::P<CVMDKDescriptorEntry> entry = kx::create<CGenericEntry>(line);
  if (inHeader) {
    insertAtHeader(entry);
  } else {
    entries_.push_back(entry);
  }
}

void CVMDKDescriptor::addExtentEntry(CVMDKExtentInfo* extent) {
  auto isExtent = [](const kx::P<CVMDKDescriptorEntry>& entry) {
    return dynamic_cast<CVMDKExtentInfo*>(entry.get()) != nullptr;
  };
  auto at = std::find_if(entries_.begin(), entries_.end(), isExtent);
  at = std::find_if_not(at, entries_.end(), isExtent);
  entries_.insert(at, kx::P<CVMDKExtentInfo>::share(extent));
}

void CVMDKDescriptor::getExtentEntries(kx::TArray<kx::P<CVMDKExtentInfo>>& extents) const {
  for (const auto& entry : entries_) {
    if (auto* extent = dynamic_cast<CVMDKExtentInfo*>(entry.get())) {
      extents.push_back(kx::P<CVMDKExtentInfo>::share(extent));
    }
  }
}

// ---------------------------------------------------------------------------
// Typed values

int CVMDKDescriptor::getVersion() const {
  return static_cast<int>(kx::parseInt64(getValue(kKeyVersion), false));
}

void CVMDKDescriptor::setVersion(int version) { setValue(kKeyVersion, formatInt64(version), false, true); }

uint32_t CVMDKDescriptor::getContentID() const {
  return static_cast<uint32_t>(kx::parseHexInt64(getValue(kKeyContentID), false));
}

void CVMDKDescriptor::setContentID(uint32_t contentID) {
  setValue(kKeyContentID, formatHex32(contentID), false, true);
}

uint32_t CVMDKDescriptor::getParentContentID() const {
  kx::String text;
  if (!tryGetValue(kKeyParentContentID, text)) return kNoParentContentID;
  return static_cast<uint32_t>(kx::parseHexInt64(text, true));
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
