#include "zarn/grain_table_cache.h"

#include <gtest/gtest.h>

#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/file_bytes.h"

namespace {

// Tables of 4 entries, table i at sector 1 + i of one file; the directories
// are only keys, so any distinct addresses serve.
class GrainTableCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::writeFileBytes(*fs_, uri_, std::vector<unsigned char>(16 * 512, 0));
    int flags = 0;
    stream_ = fs_->openFile(uri_, kx::IIOStream::ACCESS_READ_WRITE, flags);
  }
  kx::P<zarn::CVMDKGrainTable> table(int64_t index) {
    return kx::create<zarn::CVMDKGrainTable>(stream_.get(), kx::IIOStream::ACCESS_READ_WRITE, 1, 1 + index, 0, 0, 4);
  }
  void put(zarn::CVMDKGrainTableCache& cache, const void* dir, int64_t index) {
    cache.setCachedTable(static_cast<const zarn::CVMDKGrainDirectory*>(dir), index, table(index).get());
  }
  bool has(zarn::CVMDKGrainTableCache& cache, const void* dir, int64_t index) {
    return static_cast<bool>(cache.getCachedTable(static_cast<const zarn::CVMDKGrainDirectory*>(dir), index));
  }
  uint32_t word(int64_t index) { return test::le32(test::readFileBytes(*fs_, uri_), (1 + index) * 512); }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///c.vmdk")};
  kx::P<kx::IIOStream> stream_;
  const char dirs_[2] = {};
  const void* a_ = &dirs_[0];
  const void* b_ = &dirs_[1];
};

TEST_F(GrainTableCacheTest, LeastRecentlyUsedLeavesAndWritesItself) {
  zarn::CVMDKGrainTableCache cache(2);
  put(cache, a_, 0);
  put(cache, a_, 1);
  EXPECT_TRUE(has(cache, a_, 0));  // the hit makes table 1 the next to leave
  cache.getCachedTable(static_cast<const zarn::CVMDKGrainDirectory*>(a_), 1)->setGrainInfo(0, 77, 1);
  has(cache, a_, 0);
  put(cache, a_, 2);
  EXPECT_EQ(cache.getCachedTableCount(), 2);
  EXPECT_FALSE(has(cache, a_, 1));
  EXPECT_EQ(word(1), 77u);  // evicted dirty: written on the way out

  // A table somebody still holds stays valid and dirty until let go.
  zarn::CVMDKGrainTableCache none(0);
  auto held = table(3);
  none.setCachedTable(static_cast<const zarn::CVMDKGrainDirectory*>(a_), 3, held.get());
  EXPECT_EQ(none.getCachedTableCount(), 0);
  held->setGrainInfo(1, 88, 1);
  EXPECT_EQ(test::le32(test::readFileBytes(*fs_, uri_), 4 * 512 + 4), 0u);
  held = nullptr;
  EXPECT_EQ(test::le32(test::readFileBytes(*fs_, uri_), 4 * 512 + 4), 88u);
}

// An eviction that can't write its table fails the insertion that caused it,
// and the change stays in the cache for a later flush: a destructor could
// only have logged it.
TEST_F(GrainTableCacheTest, EvictionThatCannotWriteFailsTheInsertionAndKeepsTheChange) {
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(fs_);
  int flags = 0;
  stream_ = faulty->openFile(uri_, kx::IIOStream::ACCESS_READ_WRITE, flags);
  zarn::CVMDKGrainTableCache cache(1);
  put(cache, a_, 0);
  cache.getCachedTable(static_cast<const zarn::CVMDKGrainDirectory*>(a_), 0)->setGrainInfo(0, 9, 1);
  faulty->failNth(test::FileOp::Write, 1, true);
  EXPECT_THROW(put(cache, a_, 1), kx::CFileSystemError);
  EXPECT_TRUE(has(cache, a_, 0));
  EXPECT_FALSE(has(cache, a_, 1));
  faulty->disarm();
  put(cache, a_, 1);
  EXPECT_EQ(word(0), 9u);
}

TEST_F(GrainTableCacheTest, LimitEnforcementCanBeSuspended) {
  zarn::CVMDKGrainTableCache cache(1);
  cache.setAutoEnforceLimit(false);
  for (int i = 0; i < 3; ++i) put(cache, a_, i);
  EXPECT_EQ(cache.getCachedTableCount(), 3);
  cache.setAutoEnforceLimit(false);
  put(cache, a_, 0);  // replacing keeps the count and never enforces
  EXPECT_EQ(cache.getCachedTableCount(), 3);
  cache.setAutoEnforceLimit(true);
  EXPECT_EQ(cache.getCachedTableCount(), 1);
  EXPECT_TRUE(has(cache, a_, 0));
}

TEST_F(GrainTableCacheTest, DirectoriesAreFlushedAndRemovedApart) {
  zarn::CVMDKGrainTableCache cache;
  for (int i = 0; i < 3; ++i) put(cache, a_, i);
  put(cache, b_, 1);
  cache.getCachedTable(static_cast<const zarn::CVMDKGrainDirectory*>(a_), 2)->setGrainInfo(0, 5, 1);
  cache.getCachedTable(static_cast<const zarn::CVMDKGrainDirectory*>(b_), 1)->setGrainInfo(0, 6, 1);
  cache.flushCachedTablesFromDirectoryToStream(static_cast<const zarn::CVMDKGrainDirectory*>(a_));
  EXPECT_EQ(word(2), 5u);
  EXPECT_EQ(word(1), 0u);  // b's change waits
  EXPECT_EQ(cache.getCachedTableCount(), 4);
  cache.removeCachedTablesFromDirectory(static_cast<const zarn::CVMDKGrainDirectory*>(b_));
  EXPECT_EQ(word(1), 6u);
  EXPECT_EQ(cache.getCachedTableCount(), 3);
  EXPECT_TRUE(has(cache, a_, 1));
}

}  // namespace
