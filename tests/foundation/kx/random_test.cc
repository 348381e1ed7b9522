#include "kx/random.h"

#include <gtest/gtest.h>

#include <set>

namespace {

TEST(RandomTest, DrawsDifferAndCoverAllBits) {
  std::set<uint32_t> seen;
  uint32_t orBits = 0, andBits = ~0u;
  for (int i = 0; i < 256; ++i) {
    kx::CMutexLock lock(kx::CMTRand::getGlobalInstanceMutex());
    const uint32_t v = kx::CMTRand::getGlobal().rand32();
    seen.insert(v);
    orBits |= v;
    andBits &= v;
  }
  EXPECT_GT(seen.size(), 250u);
  EXPECT_EQ(orBits, ~0u);
  EXPECT_EQ(andBits, 0u);

  std::vector<unsigned char> a(1 << 20), b(1 << 20);
  kx::CMTRand::getGlobal().randData(a.data(), a.size());
  kx::CMTRand::getGlobal().randData(b.data(), b.size());
  EXPECT_NE(a, b);
  size_t zeros = 0;
  for (unsigned char c : a) zeros += c == 0;
  EXPECT_LT(zeros, a.size() / 100);  // about 1/256 expected
}

}  // namespace
