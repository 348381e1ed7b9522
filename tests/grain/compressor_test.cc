#include "zarn/compressor.h"

#include <gtest/gtest.h>

#include <vector>

#include "dfz/zlib_compressor.h"
#include "kx/error.h"
#include "tests/support/grain_data.h"

namespace {

TEST(CompressorTest, LevelsAndBound) {
  EXPECT_EQ(zarn::CVMDKCompressor(-1).getInternalDesc(), "smart-miniz-1");
  EXPECT_EQ(zarn::CVMDKCompressor(0).getInternalDesc(), "smart-zlib-0");
  dfz::CZLibCompressor stored(0);
  zarn::CVMDKCompressor compressor;
  for (int size : {0, 500, 65536, 1 << 20}) {
    const int fallbackBound = stored.getCompressedSizeUpperBound(size), bound = compressor.getCompressedSizeUpperBound(size);
    // Never below the fallback's; raised only to fill the header's last sector.
    EXPECT_TRUE(bound == fallbackBound || ((bound + 12) % 512 == 0 && bound - fallbackBound < 512)) << size;
    EXPECT_GE(bound, fallbackBound);
  }
}

TEST(CompressorTest, FallsBackToStoredBlocksWhenTheFastEngineCantDeliver) {
  const std::vector<unsigned char> noise = test::noiseGrain(65536, 1), text = test::textGrain(65536, 1);
  dfz::CZLibCompressor stored(0);
  std::vector<unsigned char> out(70000), back(65536);
  const int storedSize = stored.compressSingleStep(noise.data(), 65536, out.data(), 70000);

  for (int level : {0, 1, 9}) {
    zarn::CVMDKCompressor compressor(level);
    // A target that fits the stored form exactly leaves the fast engine no
    // room for its working margin.
    const int size = compressor.compressSingleStep(noise.data(), 65536, out.data(), storedSize);
    EXPECT_EQ(size, storedSize) << level;
    EXPECT_EQ(compressor.getCompressFallbackCount(), level == 0 ? 0 : 1) << level;
    EXPECT_EQ(compressor.decompressSingleStep(out.data(), size, back.data(), 65536), 65536);
    EXPECT_EQ(back, noise);

    const int small = compressor.compressSingleStep(text.data(), 65536, out.data(), 70000);
    EXPECT_LT(small, level == 0 ? 70000 : 1000) << level;
    EXPECT_EQ(compressor.getCompressFallbackCount(), level == 0 ? 0 : 1) << level;
  }
  EXPECT_THROW(zarn::CVMDKCompressor(0).compressSingleStep(noise.data(), -1, out.data(), 10), kx::CError);
}

// Random bytes skip the engine for stored blocks at once; a random block
// repeated, which the engine shrinks, does not.
TEST(CompressorTest, RandomDataIsStoredWithoutTryingTheEngine) {
  std::vector<unsigned char> repeated(65536);
  const std::vector<unsigned char> noise = test::noiseGrain(65536, 2), block = test::noiseGrain(4096, 3);
  for (size_t i = 0; i < repeated.size(); ++i) repeated[i] = block[i % block.size()];
  std::vector<unsigned char> out(70000), back(65536);
  zarn::CVMDKCompressor compressor(6);
  compressor.compressSingleStep(noise.data(), 65536, out.data(), 70000);
  EXPECT_EQ(compressor.getCompressFallbackCount(), 1);
  const int size = compressor.compressSingleStep(repeated.data(), 65536, out.data(), 70000);
  EXPECT_LT(size, 8192);
  EXPECT_EQ(compressor.getCompressFallbackCount(), 1);
  EXPECT_EQ(compressor.decompressSingleStep(out.data(), size, back.data(), 65536), 65536);
  EXPECT_EQ(back, repeated);
}

}  // namespace
