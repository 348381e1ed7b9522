#include "zarn/compressor.h"

#include <algorithm>

#include "dfm/miniz_compressor.h"
#include "dfz/zlib_compressor.h"
#include "kx/error.h"
#include "zarn/format_constants.h"

namespace zarn {

CVMDKCompressor::CVMDKCompressor(int level)
    : level_(level == -1 ? 1 : level), fallback_(kx::create<dfz::CZLibCompressor>(0)) {
  primary_ = level_ == 0 ? fallback_ : kx::P<kx::ISimpleCompressor>(kx::create<dfm::CMiniZCompressor>(level_));
}

CVMDKCompressor::~CVMDKCompressor() = default;

kx::String CVMDKCompressor::getInternalDesc() { return "smart-" + primary_->getInternalDesc(); }

int CVMDKCompressor::getCompressedSizeUpperBound(int sourceSize) const {
  const int fallbackBound = fallback_->getCompressedSizeUpperBound(sourceSize);
  const int sectorEnd = (fallbackBound + kSectorSize - 1) / kSectorSize * kSectorSize - kVMDKGrainHeaderSize;
  return std::max(fallbackBound, sectorEnd);
}

int CVMDKCompressor::compressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) {
  int result = -1;
  try {
    result = primary_->compressSingleStep(source, sourceSize, target, targetCapacity);
  } catch (const kx::CError&) {
    if (level_ == 0) throw;
  }
  if (result != -1 && (result <= sourceSize || result <= getCompressedSizeUpperBound(sourceSize))) return result;
  ++fallbackCount_;
  return fallback_->compressSingleStep(source, sourceSize, target, targetCapacity);
}

int CVMDKCompressor::decompressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) {
  return primary_->decompressSingleStep(source, sourceSize, target, targetCapacity);
}

}  // namespace zarn
