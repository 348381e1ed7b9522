// CVMDKCompressor: one grain in one call, with a safety net.
//
// It tries a fast deflate at the requested level and falls back to deflate at
// level 0 (stored blocks) when that fails or comes out larger than the stored
// form could. Data that a cheap test calls random (even byte frequencies in a
// 4 KiB sample, and an 8 KiB piece that the fastest level doesn't shrink)
// goes to stored blocks at once: DEFLATE would cost as much as on text for
// nothing. So the compressed size of a grain never exceeds a bound known in
// advance, which is what a grain's worst-case slot rests on. Both engines
// write zlib streams, so the primary engine decompresses what the fallback
// wrote, and a disk written at one level reads at any other.
//
// Reference counting as for every kx::CBase. One thread at a time; nothing is
// allocated per call.
#pragma once

#include <cstdint>
#include <vector>

#include "kx/base.h"
#include "kx/simple_compressor.h"

namespace zarn {

class CVMDKCompressor : public kx::CBase, public kx::ISimpleCompressor {
 public:
  // `level` -1 means 1. Level 0 stores only. Raises what the engines raise for
  // a level they don't know.
  explicit CVMDKCompressor(int level = -1);
  ~CVMDKCompressor() override;
  CVMDKCompressor(const CVMDKCompressor&) = delete;
  CVMDKCompressor& operator=(const CVMDKCompressor&) = delete;

  // "smart-" and the primary engine's description.
  kx::String getInternalDesc() override;
  // The fallback's bound B, or B rounded up to where B plus the 12-byte grain
  // header fills its last sector, whichever is larger: an output up to there
  // costs no more sectors than the fallback's.
  int getCompressedSizeUpperBound(int sourceSize) const override;
  // The primary's output if it is at most `sourceSize`, or within the bound;
  // else the fallback's (and the fallback count grows). A kx::CError of the
  // primary means fallback, except at level 0, where the fallback is the
  // primary and the error reaches the caller.
  int compressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) override;
  // The primary's decompressor; its errors reach the caller.
  int decompressSingleStep(const void* source, int sourceSize, void* target, int targetCapacity) override;

  // How many grains came out of the fallback.
  int64_t getCompressFallbackCount() const { return fallbackCount_; }
  int getLevel() const { return level_; }

 private:
  bool looksIncompressible(const unsigned char* data, int size);

  int level_;
  kx::P<kx::ISimpleCompressor> primary_;
  kx::P<kx::ISimpleCompressor> fallback_;
  int64_t fallbackCount_ = 0;
  // For the test of random data: the fastest level and room for its output.
  kx::P<kx::ISimpleCompressor> probe_;
  std::vector<unsigned char> probeOutput_;
};

}  // namespace zarn
