#include "kx/mru_cache.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Keys = std::vector<int>;

// A value that records when it is destroyed, as a dirty table records its
// final write.
class CValue : public kx::CBase {
 public:
  CValue(int id, Keys* gone) : id(id), gone_(gone) {}
  ~CValue() override { gone_->push_back(id); }
  const int id;

 private:
  Keys* gone_;
};

using Cache = kx::TMostRecentlyUsedCache<int, CValue>;

class MruCacheTest : public ::testing::Test {
 protected:
  kx::P<CValue> make(int id) { return kx::create<CValue>(id, &gone); }
  void fill(Cache& cache, Keys ids) {
    for (int id : ids) cache.set(id, make(id));
  }
  Keys gone;
};

TEST_F(MruCacheTest, HitsReorderAndTheLeastRecentIsEvicted) {
  Cache cache(3);
  EXPECT_FALSE(cache.get(1));
  kx::P<CValue> held = make(1);
  cache.set(1, held);
  fill(cache, {2, 3});
  ASSERT_TRUE(cache.get(1));
  EXPECT_EQ(cache.getKeysByRecency(), (Keys{1, 3, 2}));
  fill(cache, {4});
  EXPECT_EQ(gone, Keys{2});
  EXPECT_TRUE(cache.get(1));
  fill(cache, {5, 6, 7});
  EXPECT_EQ(gone, (Keys{2, 3, 4}));  // 1 is evicted too but still held here
  EXPECT_FALSE(cache.get(1));
  held = nullptr;
  EXPECT_EQ(gone, (Keys{2, 3, 4, 1}));

  Cache none(0);
  fill(none, {9});
  EXPECT_EQ(none.getCount(), 0);
  EXPECT_EQ(gone.back(), 9);
}

TEST_F(MruCacheTest, LimitSwitchingAndReplacement) {
  Cache cache(2);
  cache.setAutoEnforceLimit(false);
  fill(cache, {1, 2, 3, 4, 5});
  EXPECT_EQ(cache.getCount(), 5);
  cache.enforceLimit();
  EXPECT_EQ(gone, (Keys{1, 2, 3}));
  fill(cache, {6, 7});
  cache.setAutoEnforceLimit(false);  // already off: must not enforce
  EXPECT_EQ(cache.getCount(), 4);
  // Replacing moves the entry to the front and releases the old value, but evicts nothing.
  cache.set(5, make(50));
  EXPECT_EQ(gone, (Keys{1, 2, 3, 5}));
  EXPECT_EQ(cache.getKeysByRecency(), (Keys{5, 7, 6, 4}));
  EXPECT_EQ(cache.get(5)->id, 50);
  cache.setAutoEnforceLimit(true);
  EXPECT_EQ(cache.getKeysByRecency(), (Keys{5, 7}));
  fill(cache, {7});
  EXPECT_EQ(cache.getKeysByRecency(), (Keys{7, 5}));
}

TEST_F(MruCacheTest, EnumerationIsInKeyOrderAndRemovalIsSelective) {
  {
    Cache cache(10);
    fill(cache, {5, 1, 9, 3});
    Keys keys;
    for (Cache::CEnum e(cache); e.next();) keys.push_back(e.getKey());
    EXPECT_EQ(keys, (Keys{1, 3, 5, 9}));
    keys.clear();
    for (Cache::CEnum e(cache, 4); e.next();) keys.push_back(e.getKey());
    EXPECT_EQ(keys, (Keys{5, 9}));
    EXPECT_FALSE(Cache::CEnum(cache, 10).next());
    EXPECT_TRUE(cache.remove(9));
    EXPECT_FALSE(cache.remove(9));
    EXPECT_EQ(cache.getKeysByRecency(), (Keys{3, 1, 5}));
    EXPECT_EQ(gone, Keys{9});
    cache.clear();
    EXPECT_EQ(gone.size(), 4u);
    fill(cache, {2});
  }
  EXPECT_EQ(gone.size(), 5u);  // destruction releases the rest
}

}  // namespace
