// kx::IRangeCopy: an optional interface of file streams that can take bytes
// from another stream of their kind without passing them through the
// caller's memory (local files: the kernel copies them, one copy instead of
// a read and a write).
//
// Reach it with kx::dynamicCast from the target stream; a stream without it,
// or a call that returns false, leaves the copy to the caller.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/stream.h"

namespace kx {

class IRangeCopy : public virtual IBase {
 public:
  // Copies `length` bytes of `source` from `sourceOffset` on into this
  // stream at its position and moves the position behind them; true when all
  // of them were copied. False when the two streams can't do it this way
  // (another kind of stream, a system that refuses, a source that ends
  // first): then some of the bytes may have been written, and the position
  // is where it was. Raises kx::CFileSystemError when this stream isn't open
  // for writing, and for a failing system call on a copy the system takes.
  virtual bool copyFrom(IIOStream& source, int64_t sourceOffset, int64_t length) = 0;
};

}  // namespace kx
