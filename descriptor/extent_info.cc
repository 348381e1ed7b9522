#include "zarn/extent_info.h"

#include <string>
#include <string_view>

#include "descriptor/line_grammar.h"

namespace zarn {
namespace {

kx::String fromUTF8(std::string_view text) { return kx::String::fromUTF8(text.data(), text.size()); }

}  // namespace

CVMDKExtentInfo::CVMDKExtentInfo(const kx::String& access, int64_t sizeSectors, const kx::String& type,
                                 const kx::String& filename, int64_t offset)
    : access_(access), sizeSectors_(sizeSectors), type_(type), filename_(filename), offset_(offset) {}

kx::P<CVMDKExtentInfo> CVMDKExtentInfo::tryParseDescriptorLine(const kx::String& line) {
  std::string utf8;
  VMDKExtentLine parsed;
  if (!tryAppendUTF8(utf8, line) || !tryParseVMDKExtentLine(utf8, parsed)) return nullptr;
  return kx::create<CVMDKExtentInfo>(fromUTF8(parsed.access), parsed.sizeSectors, fromUTF8(parsed.type),
                                     fromUTF8(parsed.filename), parsed.offset);
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
