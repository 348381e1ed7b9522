// Growing a disk in place: into the room of its last extent's tables and not
// a byte further, with the content kept, the new bytes zero, and every step
// refused before it changes a file when it can't be done.
#include "zarn/disk_growth.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int64_t kMiB = 1 << 20;
constexpr int64_t kGrain = 65536;

struct Layout {
  const char* name;
  bool compressed;
  int64_t fileSizeLimit;
  const char* password;
};

const Layout kLayouts[] = {
    {"monolithicSparse", false, -1, ""},
    {"twoGbMaxExtentSparse", false, 4 * kMiB, ""},
    {"streamOptimized", true, -1, ""},
    {"streamOptimized split", true, 8 * kMiB, ""},
    {"twoGbMaxExtentSparse encrypted", false, 4 * kMiB, "secret"},
    {"streamOptimized encrypted", true, -1, "secret"},
};

class DiskGrowthTest : public ::testing::Test {
 protected:
  void create(const Layout& layout, int64_t size) {
    zarn::CVMDKDisk::create(fs_.get(), uri_, size, layout.password, layout.compressed, -1, layout.fileSizeLimit, "",
                            0xFFFFFFFF, false);
  }
  kx::P<zarn::CVMDKDisk> open(kx::IIOStream::Access access, const char* password = "") {
    return kx::create<zarn::CVMDKDisk>(fs_.get(), uri_, access, password);
  }
  void writeAt(int64_t position, const Bytes& data, const char* password = "") {
    auto disk = open(kx::IIOStream::ACCESS_READ_WRITE, password);
    disk->seek(position);
    disk->write(data.data(), static_cast<int>(data.size()));
  }
  Bytes readAll(const char* password = "") {
    auto disk = open(kx::IIOStream::ACCESS_READ, password);
    Bytes bytes(static_cast<size_t>(disk->getSizeBytes()));
    disk->read(bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
  }
  Bytes file(const kx::CURI& uri) {
    const kx::TBuffer<unsigned char> data = fs_->getFileData(uri);
    return Bytes(data.getData(), data.getData() + data.getUsed());
  }
  void setFile(const kx::CURI& uri, const Bytes& bytes) { fs_->setFileData(uri, bytes.data(), bytes.size()); }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///vms/disk.vmdk")};
};

TEST_F(DiskGrowthTest, EveryLayoutGrowsToItsLimitAndNotAByteFurther) {
  for (const Layout& layout : kLayouts) {
    SCOPED_TRACE(layout.name);
    create(layout, 24 * kMiB);
    Bytes model(24 * kMiB, 0);
    const Bytes tail = test::noiseGrain(kGrain + 300, 3);
    std::copy(tail.begin(), tail.end(), model.end() - static_cast<std::ptrdiff_t>(tail.size()));
    writeAt(24 * kMiB - static_cast<int64_t>(tail.size()), tail, layout.password);
    int64_t limit;
    {
      auto disk = open(kx::IIOStream::ACCESS_READ_WRITE, layout.password);
      limit = zarn::calcVMDKDiskGrowthLimitBytes(fs_.get(), *disk);
      ASSERT_GT(limit, 24 * kMiB);
      const kx::CInvalidArgError refused = test::caught(
          [&] { zarn::growVMDKDisk(fs_.get(), *disk, limit + 512); }, kx::CInvalidArgError("", ""));
      EXPECT_EQ(refused.getProps().get("limitBytes"), std::to_string(limit));
      zarn::growVMDKDisk(fs_.get(), *disk, limit);
    }
    // A table covers 32 MiB: that is the room of one file with one table.
    if (layout.fileSizeLimit == -1) {
      EXPECT_EQ(limit, 32 * kMiB);
    }
    model.resize(static_cast<size_t>(limit), 0);
    EXPECT_TRUE(readAll(layout.password) == model);
    // The new end takes writes, and they stay.
    const Bytes end = test::textGrain(kGrain, 5);
    writeAt(limit - kGrain, end, layout.password);
    std::copy(end.begin(), end.end(), model.end() - kGrain);
    EXPECT_TRUE(readAll(layout.password) == model);
    auto disk = open(kx::IIOStream::ACCESS_READ_WRITE, layout.password);
    EXPECT_EQ(zarn::calcVMDKDiskGrowthLimitBytes(fs_.get(), *disk), limit);
  }
}

TEST_F(DiskGrowthTest, RefusalsChangeNoFile) {
  create(kLayouts[0], 24 * kMiB);
  writeAt(0, test::noiseGrain(kGrain, 1));
  Bytes bytes = file(uri_);
  // A slot given to the first grain beyond the end, as damage would.
  const uint64_t directory = test::le64(bytes, 56) * 512;
  const uint64_t table = test::le32(bytes, directory) * uint64_t(512);
  const uint32_t slot = test::le32(bytes, table);
  const Bytes clean = bytes;
  test::putLE(bytes, table + 4 * 384, slot, 4);
  setFile(uri_, bytes);
  const struct {
    int64_t size;
    const char* message;
  } cases[] = {
      {16 * kMiB, "A VMDK disk doesn't shrink."},
      {24 * kMiB + 100, "A VMDK disk's size is a whole number of sectors."},
      {32 * kMiB + 512, "The VMDK disk can't grow this far"},
      {25 * kMiB, "VMDK grain table has entries beyond the end of its extent."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    auto disk = open(kx::IIOStream::ACCESS_READ_WRITE);
    const kx::CError error = test::caught([&] { zarn::growVMDKDisk(fs_.get(), *disk, c.size); }, kx::CError(""));
    EXPECT_EQ(error.getMessage().find(c.message), 0u) << error.what();
    disk = nullptr;
    EXPECT_TRUE(file(uri_) == bytes);
  }
  setFile(uri_, clean);
  auto disk = open(kx::IIOStream::ACCESS_READ_WRITE);
  zarn::growVMDKDisk(fs_.get(), *disk, 25 * kMiB);
}

// The header goes first: a growth that stopped before the extent line leaves
// a header larger than the line, which opens at the old size and grows again.
TEST_F(DiskGrowthTest, AGrowthStoppedAfterTheHeaderOpensAtTheOldSize) {
  create(kLayouts[2], 24 * kMiB);
  const Bytes data = test::noiseGrain(3 * kGrain, 9);
  writeAt(kGrain, data);
  Bytes bytes = file(uri_);
  test::putLE(bytes, 12, 30 * kMiB / 512, 8);  // the header's capacity
  setFile(uri_, bytes);
  EXPECT_EQ(open(kx::IIOStream::ACCESS_READ)->getSizeBytes(), 24 * kMiB);
  {
    auto disk = open(kx::IIOStream::ACCESS_READ_WRITE);
    zarn::growVMDKDisk(fs_.get(), *disk, 28 * kMiB);
  }
  const Bytes content = readAll();
  ASSERT_EQ(content.size(), size_t(28 * kMiB));
  EXPECT_TRUE(std::equal(data.begin(), data.end(), content.begin() + kGrain));
  // The compressed extent's footer, in the trail at the end, repeats the
  // header that now says 28 MiB.
  bytes = file(uri_);
  EXPECT_EQ(test::le64(bytes, 12), uint64_t(28 * kMiB / 512));
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + 512, bytes.end() - 1024));
}

}  // namespace
