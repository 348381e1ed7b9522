#include "kx/random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

TEST(RandomTest, DrawsCoverAllBitsAndFillWholeBuffers) {
  uint32_t orBits = 0, andBits = ~0u;
  for (int i = 0; i < 64; ++i) {
    kx::CMutexLock lock(kx::CMTRand::getGlobalInstanceMutex());
    const uint32_t v = kx::CMTRand::getGlobal().rand32();
    orBits |= v;
    andBits &= v;
  }
  EXPECT_EQ(orBits, ~0u);
  EXPECT_EQ(andBits, 0u);
  std::vector<unsigned char> data(1 << 20);
  kx::CMTRand::getGlobal().randData(data.data(), data.size());
  EXPECT_LT(std::count(data.begin(), data.end(), 0), 1 << 13);  // about 1/256 expected
}

}  // namespace
