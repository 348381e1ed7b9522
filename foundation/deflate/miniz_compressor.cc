#include "dfm/miniz_compressor.h"

#include <libdeflate.h>

#include <string>

#include "foundation/deflate/single_step.h"
#include "kx/error.h"

namespace dfm {
namespace {

constexpr int kMaxLevel = 12;
constexpr int kDefaultLevel = 6;

// libdeflate may copy from its input even when it is empty; never hand it null.
const unsigned char kNoBytes[1] = {0};

}  // namespace

CMiniZCompressor::CMiniZCompressor(int level) : level_(level == -1 ? kDefaultLevel : level) {
  constexpr const char* kContext = "CMiniZCompressor::CMiniZCompressor";
  if (level_ < 0 || level_ > kMaxLevel) {
    throw kx::CInvalidArgError(kContext, "Compression level out of range", kx::CProps().add("level", level));
  }
  compressor_ = libdeflate_alloc_compressor(level_);
  decompressor_ = libdeflate_alloc_decompressor();
  if (!compressor_ || !decompressor_) {
    libdeflate_free_compressor(compressor_);
    libdeflate_free_decompressor(decompressor_);
    throw kx::CError("libdeflate could not set up its engine", kContext, -1,
                     kx::CProps().add("level", level_));
  }
}

CMiniZCompressor::~CMiniZCompressor() {
  libdeflate_free_compressor(compressor_);
  libdeflate_free_decompressor(decompressor_);
}

kx::String CMiniZCompressor::getInternalDesc() { return kx::String("miniz-") + std::to_string(level_); }

int CMiniZCompressor::getCompressedSizeUpperBound(int sourceSize) const {
  constexpr const char* kContext = "CMiniZCompressor::getCompressedSizeUpperBound";
  if (sourceSize < 0) {
    throw kx::CInvalidArgError(kContext, "Negative size", kx::CProps().add("sourceSize", sourceSize));
  }
  return dfz::detail::checkedBound(
      kContext, libdeflate_zlib_compress_bound(compressor_, static_cast<size_t>(sourceSize)), sourceSize);
}

int CMiniZCompressor::compressSingleStep(const void* source, int sourceSize, void* target,
                                         int targetCapacity) {
  dfz::detail::checkSingleStepArgs("CMiniZCompressor::compressSingleStep", source, sourceSize, target,
                                   targetCapacity);
  const size_t written =
      libdeflate_zlib_compress(compressor_, source ? source : kNoBytes, static_cast<size_t>(sourceSize),
                               target, static_cast<size_t>(targetCapacity));
  // libdeflate has no failure but a lack of room, which it reports as 0.
  return written == 0 ? -1 : static_cast<int>(written);
}

int CMiniZCompressor::decompressSingleStep(const void* source, int sourceSize, void* target,
                                           int targetCapacity) {
  dfz::detail::checkSingleStepArgs("CMiniZCompressor::decompressSingleStep", source, sourceSize, target,
                                   targetCapacity);
  // With the _ex form libdeflate stops at the stream's end and says how much it
  // read, so the padding behind the stream is allowed.
  size_t readBytes = 0;
  size_t producedBytes = 0;
  const libdeflate_result rc = libdeflate_zlib_decompress_ex(
      decompressor_, source ? source : kNoBytes, static_cast<size_t>(sourceSize), target,
      static_cast<size_t>(targetCapacity), &readBytes, &producedBytes);
  switch (rc) {
    case LIBDEFLATE_SUCCESS:
      return static_cast<int>(producedBytes);
    case LIBDEFLATE_INSUFFICIENT_SPACE:
      dfz::detail::throwDamagedData("libdeflate", dfz::detail::kOutputTooLarge, sourceSize, targetCapacity);
    default:
      dfz::detail::throwDamagedData("libdeflate", "invalid or truncated zlib stream", sourceSize,
                                    targetCapacity);
  }
}

}  // namespace dfm
