#include "dfz/zlib_compressor.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <vector>

#include "kx/error.h"

namespace {

// The bound is zlib's own for a fresh stream of these settings; checking it
// here catches a zlib whose formula moved.
TEST(ZLibCompressorTest, BoundMatchesZLib) {
  z_stream fresh{};
  ASSERT_EQ(deflateInit2(&fresh, 0, Z_DEFLATED, 15, 8, Z_DEFAULT_STRATEGY), Z_OK);
  auto c = kx::create<dfz::CZLibCompressor>(0);
  for (int size : {0, 1, 4095, 4096, 65536, 1 << 20, 1 << 30}) {
    EXPECT_EQ(c->getCompressedSizeUpperBound(size), int(deflateBound(&fresh, uLong(size)))) << size;
  }
  deflateEnd(&fresh);
  EXPECT_THROW(c->getCompressedSizeUpperBound(INT32_MAX), kx::CInvalidArgError);
}

// Level 0 is the fallback every slot size rests on: with a target of exactly
// the bound, stored blocks must fit for every size.
TEST(ZLibCompressorTest, LevelZeroAlwaysFitsItsBound) {
  auto c = kx::create<dfz::CZLibCompressor>(0);
  std::mt19937 rng(99);
  std::vector<unsigned char> in(200001), out;
  for (auto& b : in) b = static_cast<unsigned char>(rng());
  std::vector<int> sizes = {200000};
  for (int size = 0; size <= 200000; size += size <= 1100 ? 1 : 997) sizes.push_back(size);
  for (int delta = -6; delta <= 6; ++delta) {
    for (int blocks = 1; blocks <= 3; ++blocks) sizes.push_back(blocks * 65535 + delta);
  }
  for (int size : sizes) {
    const int bound = c->getCompressedSizeUpperBound(size);
    out.assign(bound, 0);
    const int packed = c->compressSingleStep(in.data(), size, out.data(), bound);
    ASSERT_TRUE(packed != -1 && packed <= bound) << "size " << size;
  }
}

}  // namespace
