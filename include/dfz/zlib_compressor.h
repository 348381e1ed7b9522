// dfz: deflate in the zlib format (RFC 1950), one call per stream, over zlib.
#pragma once

#include <memory>

#include "kx/base.h"
#include "kx/simple_compressor.h"

struct z_stream_s;

namespace dfz {

// Keeps one deflate and one inflate state for its whole life, so that a call
// allocates nothing. Reference counted; one thread at a time.
//
// At level 0 the output is stored blocks only, and for any level the output
// never exceeds getCompressedSizeUpperBound(). Reads what dfm::CMiniZCompressor
// writes and the reverse: both write zlib streams.
class CZLibCompressor final : public kx::CBase, public kx::ISimpleCompressor {
 public:
  // `level` 0 (store) to 9 (smallest), or -1 for zlib's default (6). Other
  // values raise kx::CInvalidArgError; a failing engine set-up kx::CError.
  explicit CZLibCompressor(int level);
  ~CZLibCompressor() override;
  CZLibCompressor(const CZLibCompressor&) = delete;
  CZLibCompressor& operator=(const CZLibCompressor&) = delete;

  // "zlib-" and the effective level, e.g. "zlib-6".
  kx::String getInternalDesc() override;
  // Exact for this object's settings (15-bit window, default memory level):
  // n + n/4096 + n/16384 + n/2^25 + 13. Raises kx::CInvalidArgError for a
  // negative size or when the bound doesn't fit an int.
  int getCompressedSizeUpperBound(int sourceSize) const override;
  int compressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) override;
  int decompressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) override;

 private:
  int level_;
  std::unique_ptr<z_stream_s> deflater_;  // initialised for the object's life
  std::unique_ptr<z_stream_s> inflater_;
};

}  // namespace dfz
