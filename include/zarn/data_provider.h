// IVMDKDataProvider: what a grain without a slot reads from (a parent disk).
// Positions are bytes from the start of the whole disk.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"

namespace zarn {

class IVMDKDataProvider : public virtual kx::IBase {
 public:
  // Fills `size` bytes from `position`.
  virtual void getData(int64_t position, void* buffer, int size) = 0;
  // Leaves the prepared form of the grain at `position` in `buffer`: plain, or
  // compressed when `compressed`, never encrypted; `grainSize` is in bytes and
  // must match the provider's, as must the compression.
  virtual void getPreparedGrainData(int64_t position, kx::TBuffer<unsigned char>& buffer, int grainSize,
                                    bool compressed) = 0;
  // Whether any disk behind the provider holds the grain at `position`.
  virtual bool isGrainWritten(int64_t position) = 0;
};

}  // namespace zarn
