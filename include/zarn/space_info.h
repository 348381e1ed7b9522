// CVMDKSpaceInfo: how the bytes of a disk's files are used, in bytes.
//
// payloadSize: guest data held (allocated grains times the grain size);
// payloadSizeInFile: the room those grains take (their slots);
// headerSize: the head of the files (header, descriptor, directories, tables);
// deadSpaceSize: everything else (a compressed extent's trail, slots given up
// by grains that moved, alignment gaps, foreign bytes kept at a file's end).
// Each extent makes one for itself; the disk adds them up.
#pragma once

#include <cstdint>

#include "kx/base.h"

namespace zarn {

class CVMDKSpaceInfo : public kx::CBase {
 public:
  CVMDKSpaceInfo() = default;
  CVMDKSpaceInfo(const CVMDKSpaceInfo& other) = default;
  CVMDKSpaceInfo& operator=(const CVMDKSpaceInfo& other) = default;

  int64_t getPayloadSize() const { return payloadSize_; }
  void setPayloadSize(int64_t value) { payloadSize_ = value; }
  int64_t getPayloadSizeInFile() const { return payloadSizeInFile_; }
  void setPayloadSizeInFile(int64_t value) { payloadSizeInFile_ = value; }
  int64_t getHeaderSize() const { return headerSize_; }
  void setHeaderSize(int64_t value) { headerSize_ = value; }
  int64_t getDeadSpaceSize() const { return deadSpaceSize_; }
  void setDeadSpaceSize(int64_t value) { deadSpaceSize_ = value; }

  // Adds each size of `other` to this one's.
  void addSpaceInfo(const CVMDKSpaceInfo& other) {
    payloadSize_ += other.payloadSize_;
    payloadSizeInFile_ += other.payloadSizeInFile_;
    headerSize_ += other.headerSize_;
    deadSpaceSize_ += other.deadSpaceSize_;
  }

 private:
  int64_t payloadSize_ = 0;
  int64_t payloadSizeInFile_ = 0;
  int64_t headerSize_ = 0;
  int64_t deadSpaceSize_ = 0;
};

}  // namespace zarn
