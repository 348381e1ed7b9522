#include "kx/mru_cache.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// A value that records when it is destroyed, as a dirty table records its
// final write.
class CValue : public kx::CBase {
 public:
  CValue(int id, std::vector<int>* gone) : id(id), gone_(gone) {}
  ~CValue() override { gone_->push_back(id); }
  const int id;

 private:
  std::vector<int>* gone_;
};

using Cache = kx::TMostRecentlyUsedCache<int, CValue>;

class MruCacheTest : public ::testing::Test {
 protected:
  kx::P<CValue> make(int id) { return kx::create<CValue>(id, &gone); }
  std::vector<int> gone;
};

TEST_F(MruCacheTest, MissOnEmptyCacheChangesNothing) {
  Cache cache(4);
  EXPECT_FALSE(cache.get(1));
  EXPECT_EQ(cache.getCount(), 0);
}

TEST_F(MruCacheTest, HitChangesEvictionOrder) {
  Cache cache(3);
  cache.set(1, make(1));
  cache.set(2, make(2));
  cache.set(3, make(3));
  ASSERT_TRUE(cache.get(1));
  EXPECT_EQ(cache.getKeysByRecency(), (std::vector<int>{1, 3, 2}));
  cache.set(4, make(4));
  EXPECT_EQ(gone, std::vector<int>{2});
  EXPECT_FALSE(cache.get(2));
  EXPECT_TRUE(cache.get(1));
}

TEST_F(MruCacheTest, EvictedValueHeldElsewhereLivesUntilReleased) {
  Cache cache(2);
  kx::P<CValue> held = make(1);
  cache.set(1, held);
  cache.set(2, make(2));
  cache.set(3, make(3));
  EXPECT_EQ(cache.getCount(), 2);
  EXPECT_TRUE(gone.empty());
  held = nullptr;
  EXPECT_EQ(gone, std::vector<int>{1});
}

TEST_F(MruCacheTest, LimitZeroEvictsAtOnce) {
  Cache cache(0);
  cache.set(1, make(1));
  EXPECT_EQ(cache.getCount(), 0);
  EXPECT_EQ(gone, std::vector<int>{1});
}

TEST_F(MruCacheTest, LimitSwitching) {
  Cache cache(2);
  cache.setAutoEnforceLimit(false);
  for (int i = 1; i <= 5; ++i) cache.set(i, make(i));
  EXPECT_EQ(cache.getCount(), 5);
  EXPECT_TRUE(gone.empty());
  cache.enforceLimit();
  EXPECT_EQ(cache.getCount(), 2);
  EXPECT_EQ(gone, (std::vector<int>{1, 2, 3}));
  for (int i = 6; i <= 7; ++i) cache.set(i, make(i));
  EXPECT_EQ(cache.getCount(), 4);
  cache.setAutoEnforceLimit(true);
  EXPECT_EQ(cache.getCount(), 2);
  EXPECT_EQ(cache.getKeysByRecency(), (std::vector<int>{7, 6}));
}

TEST_F(MruCacheTest, EnablingAgainDoesNotEnforce) {
  Cache cache(1);
  cache.setAutoEnforceLimit(false);
  cache.set(1, make(1));
  cache.set(2, make(2));
  cache.setAutoEnforceLimit(false);
  EXPECT_EQ(cache.getCount(), 2);
  cache.setAutoEnforceLimit(true);
  EXPECT_EQ(cache.getCount(), 1);
  cache.setAutoEnforceLimit(true);  // already on: nothing happens
  EXPECT_EQ(cache.getCount(), 1);
}

TEST_F(MruCacheTest, ReplacingKeepsCountAndDoesNotEnforce) {
  Cache cache(1);
  cache.setAutoEnforceLimit(false);
  cache.set(1, make(1));
  cache.set(2, make(2));
  cache.setAutoEnforceLimit(false);
  // Turn auto on without letting it run, by replacing only.
  Cache other(1);
  other.set(1, make(10));
  other.set(1, make(11));
  EXPECT_EQ(other.getCount(), 1);
  EXPECT_EQ(gone, std::vector<int>{10});
  EXPECT_EQ(other.get(1)->id, 11);
  // A replacement on a cache that is above its limit leaves it above.
  cache.set(2, make(12));
  EXPECT_EQ(cache.getCount(), 2);
  EXPECT_EQ(cache.getKeysByRecency(), (std::vector<int>{2, 1}));
}

TEST_F(MruCacheTest, EnumerationIsInKeyOrderAndRemovalIsSelective) {
  Cache cache(10);
  for (int key : {5, 1, 9, 3}) cache.set(key, make(key));
  std::vector<int> keys;
  for (Cache::CEnum e(cache); e.next();) keys.push_back(e.getKey());
  EXPECT_EQ(keys, (std::vector<int>{1, 3, 5, 9}));
  EXPECT_EQ(cache.getKeysByRecency(), (std::vector<int>{3, 9, 1, 5}));
  EXPECT_TRUE(cache.remove(9));
  EXPECT_FALSE(cache.remove(9));
  EXPECT_EQ(cache.getKeysByRecency(), (std::vector<int>{3, 1, 5}));
  cache.clear();
  EXPECT_EQ(cache.getCount(), 0);
  EXPECT_EQ(gone.size(), 4u);
}

TEST_F(MruCacheTest, DestructionReleasesEveryValue) {
  {
    Cache cache(10);
    cache.set(1, make(1));
    cache.set(2, make(2));
  }
  EXPECT_EQ(gone.size(), 2u);
}

}  // namespace
