// IVMDKForeignExtent: one extent line of a foreign disk, opened: a sparse
// extent file, a flat file at a sector offset, or a run of zeros. Offsets
// count bytes from the extent's start; the extent's size is its line's.
#pragma once

#include <cstdint>

#include "import/foreign_layer.h"
#include "kx/base.h"
#include "kx/buffer.h"

namespace zarn {

// Reference counted. One thread at a time.
class IVMDKForeignExtent : public virtual kx::IBase {
 public:
  // As IVMDKForeignLayer::getState, within the extent: `offset` lies below
  // the extent's size and `runBytes` doesn't reach past it.
  virtual VMDKForeignGrainState getState(int64_t offset, int64_t maxBytes, bool exact, int64_t& runBytes) = 0;
  // Reads `bytes` at `offset`, all within the extent: stored bytes as
  // stored, everything else as zeros. Raises kx::CIOError code 5 when a
  // grain or table in the range is damaged, or a flat file ends too early.
  virtual void read(int64_t offset, void* buffer, int bytes) = 0;
  // As IVMDKForeignLayer::tryReadStoredGrain, within the extent.
  virtual bool tryReadStoredGrain(int64_t offset, int64_t grainBytes, kx::TBuffer<unsigned char>& data) = 0;

 protected:
  ~IVMDKForeignExtent() override = default;
};

}  // namespace zarn
