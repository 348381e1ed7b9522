// IVMDKForeignLayer: one disk of a chain as CVMDKForeignDisk walks it, a
// foreign disk (CVMDKForeignDescriptorLayer) or one of this library
// (CVMDKOwnDiskLayer). A layer answers for its own grains only; the chain
// is the foreign disk's to walk, so that the links can be of both kinds.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/uri.h"
#include "zarn/descriptor.h"

namespace zarn {

// What a disk holds for a run of bytes.
enum class VMDKForeignGrainState {
  Absent,  // nothing: the parent's bytes show, or zeros at the top of a chain
  Zero,    // zeros that hide the parent's bytes (zero grains, zero extents)
  Stored,  // data of this disk
};

// Reference counted. One thread at a time.
class IVMDKForeignLayer : public virtual kx::IBase {
 public:
  // The disk's main file, normalized; links of a chain compare by it.
  virtual kx::CURI getMainFileURI() const = 0;
  // The disk's size in bytes; positions below it may be asked.
  virtual int64_t getSizeBytes() const = 0;
  // The layer's descriptor; never null.
  virtual kx::P<CVMDKDescriptor> getDescriptor() const = 0;
  // The state at `position` (below the size) and in `runBytes` how many bytes
  // from there share it: at least 1, at most `maxBytes` (which is at least
  // 1). `exact` unpacks a compressed grain to tell whether it is all zeros;
  // without it a stored grain is Stored whatever it holds, which reads the
  // same. Raises kx::CIOError code 5 when the table that would say is
  // damaged.
  virtual VMDKForeignGrainState getState(int64_t position, int64_t maxBytes, bool exact, int64_t& runBytes) = 0;
  // Reads `bytes` at `position`. REQUIRES: getState called the whole range
  // Stored. Raises kx::CIOError code 5 for a damaged grain.
  virtual void read(int64_t position, void* buffer, int bytes) = 0;
  // When the layer stores the grain of `grainBytes` bytes at `position`
  // compressed, as one grain of that size: puts its stored form (grain
  // header and deflate data, without padding) into `data` and returns true.
  // False without touching anything otherwise. Raises kx::CIOError code 5
  // when the grain's header is damaged; the deflate data is not checked.
  virtual bool tryReadStoredGrain(int64_t position, int64_t grainBytes, kx::TBuffer<unsigned char>& data) = 0;

 protected:
  ~IVMDKForeignLayer() override = default;
};

}  // namespace zarn
