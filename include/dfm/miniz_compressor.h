// dfm: a fast deflate in the zlib format (RFC 1950), one call per stream.
#pragma once

#include "kx/base.h"
#include "kx/simple_compressor.h"

struct libdeflate_compressor;
struct libdeflate_decompressor;

namespace dfm {

// Keeps one compressor (for its level) and one decompressor for its whole
// life, so that a call allocates nothing. Reference counted; one thread at a
// time. Reads what dfz::CZLibCompressor writes and the reverse.
class CMiniZCompressor final : public kx::CBase, public kx::ISimpleCompressor {
 public:
  // `level` 0 (store) to 12 (smallest), or -1 for the default (6). Other values
  // raise kx::CInvalidArgError; a failing engine set-up kx::CError.
  explicit CMiniZCompressor(int level);
  ~CMiniZCompressor() override;
  CMiniZCompressor(const CMiniZCompressor&) = delete;
  CMiniZCompressor& operator=(const CMiniZCompressor&) = delete;

  // "miniz-" and the effective level, e.g. "miniz-1".
  kx::String getInternalDesc() override;
  // Raises kx::CInvalidArgError for a negative size or when the bound doesn't
  // fit an int.
  int getCompressedSizeUpperBound(int sourceSize) const override;
  // As the interface says, with one liberty of the engine: it writes words and
  // keeps a margin of a few bytes, so an output that would end within about 8
  // bytes of `targetCapacity` may also give -1. A target of
  // getCompressedSizeUpperBound() bytes always suffices.
  int compressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) override;
  int decompressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) override;

 private:
  int level_;
  libdeflate_compressor* compressor_ = nullptr;
  libdeflate_decompressor* decompressor_ = nullptr;
};

}  // namespace dfm
