// CVMDKExtentInfo: an extent line of a descriptor, such as
//   RW 16777216 SPARSE "disk.vmdk"
// It says which file holds which run of sectors of the disk. The words are
// kept as they stand; what an access word or a type means is the disk's to
// judge.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/string.h"
#include "zarn/descriptor_entry.h"

namespace zarn {

class CVMDKExtentInfo : public CVMDKDescriptorEntry {
 public:
  // `offset` -1 means that the line carries no offset word.
  CVMDKExtentInfo(const kx::String& access, int64_t sizeSectors, const kx::String& type,
                  const kx::String& filename, int64_t offset);

  // Reads one descriptor line of the form
  //   access sizeSectors type "filename" [offset]
  // with blanks (not tabs) between the words. Returns null for any line that
  // doesn't have this form, including numbers that don't parse; never raises.
  static kx::P<CVMDKExtentInfo> tryParseDescriptorLine(const kx::String& line);

  // The words joined by single blanks, the file name in double quotes, the
  // offset only when it is not -1.
  kx::String toString() const override;
  kx::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

  const kx::String& getAccess() const { return access_; }
  int64_t getSizeSectors() const { return sizeSectors_; }
  void setSizeSectors(int64_t sizeSectors) { sizeSectors_ = sizeSectors; }
  const kx::String& getType() const { return type_; }
  const kx::String& getFilename() const { return filename_; }
  void setFilename(const kx::String& filename) { filename_ = filename; }
  int64_t getOffset() const { return offset_; }

 private:
  kx::String access_;
  int64_t sizeSectors_;
  kx::String type_;
  kx::String filename_;
  int64_t offset_;
};

}  // namespace zarn
