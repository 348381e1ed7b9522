// kx::IWriteBack: an optional interface of file streams that can hand what
// they write to the device as they go, rather than leave it all to the next
// flush. A writer that will flush anyway (a disk's files) turns it on: the
// device works while the writer does, and the flush at the end finds little
// left to wait for. Nothing changes in what a flush promises.
//
// Reach it with kx::dynamicCast from the stream; a stream without it writes
// as it always does.
#pragma once

#include <cstdint>

#include "kx/base.h"

namespace kx {

class IWriteBack : public virtual IBase {
 public:
  // From now on, each time `bytes` more have been written, starts the
  // device's writeback of them without waiting for it; 0 turns it off. Only a
  // hint: a failure shows at the next flush.
  virtual void setWriteBackInterval(int64_t bytes) = 0;
};

}  // namespace kx
