#include "zarn/compressor.h"

#include <algorithm>
#include <cmath>
#include <cstring>

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

namespace {

constexpr int kSamplePiece = 1024;
constexpr int kProbeBytes = 8192;

// Byte frequencies of 4 KiB from four places, close to even: the entropy of
// random bytes (about 7.95 bits a byte at this size).
bool hasEvenByteFrequencies(const unsigned char* data, int size) {
  int counts[256] = {};
  for (int part = 0; part < 4; ++part) {
    const unsigned char* piece = data + static_cast<int64_t>(size - kSamplePiece) * part / 3;
    for (int i = 0; i < kSamplePiece; ++i) ++counts[piece[i]];
  }
  double entropy = 0;
  for (int count : counts) {
    if (count == 0) continue;
    const double p = count / (4.0 * kSamplePiece);
    entropy -= p * std::log2(p);
  }
  return entropy > 7.8;
}

}  // namespace

bool CVMDKCompressor::looksIncompressible(const unsigned char* data, int size) {
  if (level_ == 0 || !data || size < 16 * kSamplePiece || !hasEvenByteFrequencies(data, size)) return false;
  // Even frequencies also come from a random block repeated, which LZ
  // matching shrinks: a piece of the middle, through the fastest level.
  if (!probe_) {
    probe_ = kx::create<dfm::CMiniZCompressor>(1);
    probeOutput_.resize(static_cast<size_t>(probe_->getCompressedSizeUpperBound(kProbeBytes)));
  }
  const unsigned char* middle = data + (size - kProbeBytes) / 2;
  const int probed =
      probe_->compressSingleStep(middle, kProbeBytes, probeOutput_.data(), static_cast<int>(probeOutput_.size()));
  return probed < 0 || probed > kProbeBytes * 97 / 100;
}

int CVMDKCompressor::compressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) {
  if (looksIncompressible(static_cast<const unsigned char*>(source), sourceSize)) {
    ++fallbackCount_;
    return fallback_->compressSingleStep(source, sourceSize, target, targetCapacity);
  }
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
