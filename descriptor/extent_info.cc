#include "zarn/extent_info.h"

#include <string>

#include "kx/error.h"
#include "kx/parse.h"

namespace zarn {
namespace {

// Only the blank separates words of an extent line; a tab is part of a word.
constexpr char kBlank = ' ';
constexpr char kQuote = '"';

// Splits `rest` after leading white space at its first blank: `word` gets
// what stands before it, `rest` what stands behind it. False without a blank.
bool takeWord(kx::String& rest, kx::String& word) {
  rest.Trim(false);
  const size_t blank = rest.find(kBlank);
  if (blank == kx::String::npos) return false;
  word = rest.Left(blank);
  rest = rest.Mid(blank + 1);
  return true;
}

}  // namespace

CVMDKExtentInfo::CVMDKExtentInfo(const kx::String& access, int64_t sizeSectors, const kx::String& type,
                                 const kx::String& filename, int64_t offset)
    : access_(access), sizeSectors_(sizeSectors), type_(type), filename_(filename), offset_(offset) {}

kx::P<CVMDKExtentInfo> CVMDKExtentInfo::tryParseDescriptorLine(const kx::String& line) {
  try {
    // The access word is taken as it stands, even empty when the line starts
    // with a blank.
    const size_t blank = line.find(kBlank);
    if (blank == kx::String::npos) return nullptr;
    const kx::String access = line.Left(blank);
    kx::String rest = line.Mid(blank + 1);

    kx::String sizeText;
    if (!takeWord(rest, sizeText)) return nullptr;
    const int64_t sizeSectors = kx::parseInt64(sizeText, false);

    kx::String type;
    if (!takeWord(rest, type)) return nullptr;

    rest.Trim(false);
    if (rest.isEmpty() || rest[0] != kQuote) return nullptr;
    const size_t closing = rest.find(kQuote, 1);
    if (closing == kx::String::npos) return nullptr;
    const kx::String filename = rest.Mid(1, closing - 1);
    rest = rest.Mid(closing + 1);

    rest.Trim(true).Trim(false);
    const int64_t offset = rest.isEmpty() ? -1 : kx::parseInt64(rest, false);
    return kx::create<CVMDKExtentInfo>(access, sizeSectors, type, filename, offset);
  } catch (const kx::CError&) {
    // A word that is no number makes the line an ordinary one, not a fault.
    return nullptr;
  }
}

kx::String CVMDKExtentInfo::toString() const {
  kx::String text = access_;
  text += " ";
  text += kx::String(std::to_string(sizeSectors_));
  text += " ";
  text += type_;
  text += " \"";
  text += filename_;
  text += "\"";
  if (offset_ != -1) {
    text += " ";
    text += kx::String(std::to_string(offset_));
  }
  return text;
}

kx::P<CVMDKDescriptorEntry> CVMDKExtentInfo::cloneDescriptorEntry() const {
  return kx::create<CVMDKExtentInfo>(access_, sizeSectors_, type_, filename_, offset_);
}

}  // namespace zarn
