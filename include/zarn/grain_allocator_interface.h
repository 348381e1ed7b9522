// IVMDKGrainAllocator: what gives a grain a new slot.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"

namespace zarn {

class IVMDKGrainAllocator : public virtual kx::IBase {
 public:
  // Writes what must end the file (a compressed extent's trail) if it has
  // been overwritten since. Doesn't flush the stream.
  virtual void flushChangesToStream() = 0;
  // Adds a slot of `slotSizeSectors` at the end of the file, writes `size`
  // bytes of `data` and zeros up to the slot's end, records the slot for
  // `grainIndex` (within the extent) in the grain table, and returns its
  // first sector. `data` is done with when the call returns.
  virtual int64_t allocNewGrain(int64_t grainIndex, const void* data, int size, int slotSizeSectors) = 0;
  // The same; the stream may keep `data` instead of copying it, so its bytes
  // must not change until they reached the file (kx::IOutStream::writeKeepBuffer).
  virtual int64_t allocNewGrainKeepBuffer(int64_t grainIndex, const kx::TConstBufferSlice<unsigned char>& data,
                                          int slotSizeSectors) = 0;
};

}  // namespace zarn
