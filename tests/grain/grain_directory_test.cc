#include "zarn/grain_directory.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_stack.h"
#include "tests/support/log_capture.h"

namespace {

using Bytes = std::vector<unsigned char>;

class GrainDirectoryTest : public ::testing::Test {
 protected:
  // A new extent of `tables` full grain tables.
  void make(bool compressed, int64_t tables) {
    kx::TBuffer<unsigned char> zeros(65536);
    zarn::createEmptyVMDKSparseExtentFile(fs_.get(), uri_, compressed, tables * 512, 128, zeros, nullptr, 0, {});
  }
  kx::P<zarn::CVMDKGrainDirectory> open(bool requireSlots, int64_t capacity = -1) {
    stream_ = zarn::openVMDKFileStream(fs_.get(), uri_, kx::IIOStream::ACCESS_READ_WRITE);
    kx::CDataInStream in(*stream_);
    header_.load(in);
    return kx::create<zarn::CVMDKGrainDirectory>(
        stream_.get(), kx::IIOStream::ACCESS_READ_WRITE, header_.getGrainDirectoryOffsetSectors(),
        header_.getRedundantGrainDirectoryOffsetSectors(),
        capacity < 0 ? static_cast<int64_t>(header_.getCapacitySectors()) : capacity, 128, 512, requireSlots,
        cache_.get());
  }
  void patch(int64_t at, uint64_t value, int width) {
    Bytes bytes = test::readFileBytes(*fs_, uri_);
    test::putLE(bytes, at, value, width);
    test::writeFileBytes(*fs_, uri_, bytes);
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///d.vmdk")};
  kx::P<zarn::CVMDKGrainTableCache> cache_ = kx::create<zarn::CVMDKGrainTableCache>();
  kx::P<kx::IIOStream> stream_;
  zarn::CVMDKSparseExtentHeader header_;
};

// A capacity that ends inside a grain counts that grain; no disk test makes one.
TEST_F(GrainDirectoryTest, APartGrainCounts) {
  EXPECT_EQ(zarn::CVMDKGrainDirectory::calcExtentGrainCount(1, 128), 1);
  EXPECT_EQ(zarn::CVMDKGrainDirectory::calcExtentGrainCount(128, 128), 1);
  EXPECT_EQ(zarn::CVMDKGrainDirectory::calcExtentGrainCount(129, 128), 2);
  EXPECT_EQ(zarn::CVMDKGrainDirectory::calcExtentGrainCount(INT64_MAX, 1), INT64_MAX);
}

TEST_F(GrainDirectoryTest, LoadsBlocksOf32AndNeverReplacesACachedTable) {
  make(false, 70);
  cache_ = kx::create<zarn::CVMDKGrainTableCache>(33);
  auto dir = open(false);
  dir->getGrainTable(40);
  EXPECT_EQ(cache_->getCachedTableCount(), 32);  // 32 to 63
  dir->getGrainTable(65);
  EXPECT_EQ(cache_->getCachedTableCount(), 33);  // 64 to 69 evicted 32 to 36

  // Table 63 is the most recent and changed; loading its block again keeps it.
  dir->setGrainInfo(63 * 512, 4096, 128);
  dir->getGrainTable(33);
  EXPECT_TRUE(dir->getGrainTable(63)->hasUnflushedChanges());
  int64_t pos = 0, slot = 0;
  dir->getGrainInfo(63 * 512, pos, slot);
  EXPECT_EQ(pos, 4096);

  dir = nullptr;  // flushes, then leaves the cache
  EXPECT_EQ(cache_->getCachedTableCount(), 0);
  dir = open(false);
  dir->getGrainInfo(63 * 512, pos, slot);
  EXPECT_EQ(pos, 4096);
}

TEST_F(GrainDirectoryTest, FindsTheSlotDirectoryBehindTheLastTable) {
  make(true, 2);
  EXPECT_TRUE(open(true)->getHaveSlotSizeInfo());
  fs_->deleteFile(uri_, false);
  make(false, 2);
  EXPECT_FALSE(open(false)->getHaveSlotSizeInfo());
  EXPECT_EQ(test::caught([&] { open(true); }, kx::CError("none")).getMessage(),
            "Slot size directory not found in compressed VMDK.");

  // A marker of the wrong size is only a warning, unless slots are required.
  fs_->deleteFile(uri_, false);
  make(true, 2);
  auto dir = open(true);
  const int64_t marker = dir->getSlotDirectoryPosSectors() - 1;
  dir = nullptr;
  patch(marker * 512, 2, 8);
  test::CLogCapture log;
  EXPECT_FALSE(open(false)->getHaveSlotSizeInfo());
  ASSERT_EQ(log.count(kx::LogLevel::Warning), 1u);
  EXPECT_NE(log.lines[0].text.find("(actual: 2, expected: 1, uri: 'file:///d.vmdk')"), std::string::npos);
  EXPECT_THROW(open(true), kx::CError);
}

}  // namespace
