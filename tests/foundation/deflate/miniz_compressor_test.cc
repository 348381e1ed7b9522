#include "dfm/miniz_compressor.h"

#include <gtest/gtest.h>

#include "kx/error.h"

namespace {

TEST(MiniZCompressorTest, LevelsAndDescription) {
  EXPECT_EQ(kx::create<dfm::CMiniZCompressor>(1)->getInternalDesc(), "miniz-1");
  EXPECT_EQ(kx::create<dfm::CMiniZCompressor>(-1)->getInternalDesc(), "miniz-6");
  EXPECT_EQ(kx::create<dfm::CMiniZCompressor>(12)->getInternalDesc(), "miniz-12");
  EXPECT_THROW(dfm::CMiniZCompressor(13), kx::CInvalidArgError);
  EXPECT_THROW(dfm::CMiniZCompressor(-2), kx::CInvalidArgError);
}

}  // namespace
