#include "import/grain_unpacker.h"

#include <cstring>

#include "dfm/miniz_compressor.h"
#include "zarn/format_constants.h"

namespace zarn {

CVMDKForeignGrainUnpacker::CVMDKForeignGrainUnpacker() : decompressor_(kx::create<dfm::CMiniZCompressor>(-1)) {}

CVMDKForeignGrainUnpacker::~CVMDKForeignGrainUnpacker() = default;

const unsigned char* CVMDKForeignGrainUnpacker::getGrain() const {
  if (damage_) damage_->rethrowCopy();
  return grain_.getData();
}

void CVMDKForeignGrainUnpacker::unpack(const void* owner, int64_t grainIndex, int64_t grainBytes) {
  clear();
  if (stored_.getUsed() < static_cast<size_t>(kVMDKGrainHeaderSize)) {
    throw kx::CError("Internal error: a stored VMDK grain is shorter than its header.");
  }
  grain_.setUsed(static_cast<size_t>(grainBytes));
  const int produced = decompressor_->decompressSingleStep(
      stored_.getData() + kVMDKGrainHeaderSize, static_cast<int>(stored_.getUsed()) - kVMDKGrainHeaderSize,
      grain_.getData(), static_cast<int>(grainBytes));
  // A last grain may have been packed only as far as the capacity reaches.
  std::memset(grain_.getData() + produced, 0, static_cast<size_t>(grainBytes - produced));
  const unsigned char* data = grain_.getData();
  isZero_ = data[0] == 0 && std::memcmp(data, data + 1, static_cast<size_t>(grainBytes - 1)) == 0;
  owner_ = owner;
  grainIndex_ = grainIndex;
}

void CVMDKForeignGrainUnpacker::keepDamage(const void* owner, int64_t grainIndex, const kx::CError& error) {
  damage_ = error.clone();
  owner_ = owner;
  grainIndex_ = grainIndex;
  isZero_ = false;
}

void CVMDKForeignGrainUnpacker::forget(const void* owner) {
  if (owner_ == owner) clear();
}

void CVMDKForeignGrainUnpacker::clear() {
  owner_ = nullptr;
  grainIndex_ = -1;
  damage_.reset();
}

}  // namespace zarn
