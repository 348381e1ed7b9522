// Differencing disks: reads fall through a chain of parents, a child's own
// grains win, a changed or missing parent fails only the reads that need it.
#include "zarn/parent_disk_data_provider.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/log_capture.h"
#include "zarn/disk.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int64_t kMiB = 1 << 20;

class ParentChainTest : public ::testing::Test {
 protected:
  static kx::CURI uri(const std::string& path) { return kx::CURI(kx::String("file:///vms/") + path); }
  // A disk of `size` whose grains [first, first + count) hold `seed`'s noise,
  // as a child of `parent` (or none); returns its content ID.
  uint32_t make(const std::string& path, int64_t size, bool compressed, const std::string& parent,
                uint32_t parentCID, int64_t first, int64_t count, uint64_t seed) {
    auto disk = zarn::CVMDKDisk::create(fs_.get(), uri(path), size, "", compressed, -1, -1,
                                        kx::String::FromUTF8(parent.c_str()), parentCID, false);
    const Bytes data = test::noiseGrain(static_cast<size_t>(count * 65536), seed);
    disk->seek(first * 65536);
    disk->write(data.data(), static_cast<int>(data.size()));
    return disk->getDescriptor()->getContentID();
  }
  Bytes read(const std::string& path, int64_t at, int size) {
    auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), uri(path), kx::IIOStream::ACCESS_READ, "");
    Bytes out(static_cast<size_t>(size));
    disk->seek(at);
    disk->read(out.data(), size);
    return out;
  }
  static Bytes noiseAt(int64_t grain, uint64_t seed, int64_t first) {
    const Bytes all = test::noiseGrain(static_cast<size_t>((grain - first + 1) * 65536), seed);
    return Bytes(all.end() - 65536, all.end());
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
};

TEST_F(ParentChainTest, ReadsFallThroughAChainOfThree) {
  // base: grains 0-3 (plain); child: 2-5 (compressed); grandchild: 4-7, and
  // is larger than the others, which read as zeros past their end.
  const uint32_t base = make("base.vmdk", 8 * kMiB, false, "", 0xFFFFFFFF, 0, 4, 1);
  const uint32_t child = make("c/child.vmdk", 8 * kMiB, true, "../base.vmdk", base, 2, 4, 2);
  make("c/g/grandchild.vmdk", 16 * kMiB, true, "..\\child.vmdk", child, 4, 4, 3);
  const Bytes all = read("c/g/grandchild.vmdk", 0, static_cast<int>(16 * kMiB));
  const auto grain = [&](int64_t g) { return Bytes(all.begin() + g * 65536, all.begin() + (g + 1) * 65536); };
  EXPECT_EQ(grain(1), noiseAt(1, 1, 0));
  EXPECT_EQ(grain(3), noiseAt(3, 2, 2));  // the child's own wins over the base
  EXPECT_EQ(grain(5), noiseAt(5, 3, 4));
  EXPECT_EQ(grain(130), Bytes(65536, 0));  // past every parent's end

  auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), uri("c/g/grandchild.vmdk"), kx::IIOStream::ACCESS_READ, "");
  for (const auto& [g, written, own] : std::vector<std::tuple<int, bool, bool>>{{0, true, false}, {5, true, true}, {9, false, false}}) {
    disk->seek(g * 65536);
    EXPECT_EQ(disk->isGrainWritten(), written) << g;
    EXPECT_EQ(disk->isGrainWrittenAndIndependentOfParent(), own) << g;
  }
}

TEST_F(ParentChainTest, AChangedOrMissingParentFailsOnlyTheReadsThatNeedIt) {
  const uint32_t base = make("base.vmdk", 8 * kMiB, false, "", 0xFFFFFFFF, 0, 2, 1);
  make("child.vmdk", 8 * kMiB, false, "base.vmdk", base, 1, 1, 2);
  make("base.vmdk", 8 * kMiB, false, "", 0xFFFFFFFF, 0, 2, 1);  // made again: another content ID
  test::CLogCapture log;
  auto child = kx::create<zarn::CVMDKDisk>(fs_.get(), uri("child.vmdk"), kx::IIOStream::ACCESS_READ, "");
  Bytes out(65536);
  child->seek(65536);
  child->read(out.data(), 65536);  // its own grain
  EXPECT_EQ(out, noiseAt(1, 2, 1));
  for (int attempt = 0; attempt < 2; ++attempt) {
    child->seek(0);
    const kx::CIOError error = test::caught([&] { child->read(out.data(), 10); }, kx::CIOError(0, ""));
    EXPECT_EQ(error.getMessage(), "VMDK parent disk has changed, but a child disk depended on it.");
    EXPECT_EQ(error.getProps().get("expectedContentID"), kx::String::Format("%x", base));
  }
  EXPECT_EQ(log.count(kx::LogLevel::Error), 2u);  // each attempt opens and logs again
  fs_->deleteFile(uri("base.vmdk"), false);
  child->seek(0);
  EXPECT_THROW(child->read(out.data(), 10), kx::CFileSystemError);
}

TEST_F(ParentChainTest, LoopsAndEndlessChainsAreRefused) {
  make("self.vmdk", 8 * kMiB, false, "self.vmdk", 1, 0, 0, 0);
  const uint32_t a = make("a.vmdk", 8 * kMiB, false, "b.vmdk", 1, 0, 0, 0);
  const uint32_t b = make("b.vmdk", 8 * kMiB, false, "a.vmdk", a, 0, 0, 0);
  {
    auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), uri("a.vmdk"), kx::IIOStream::ACCESS_READ_WRITE, "");
    disk->getDescriptor()->setParentContentID(b);
    disk->storeDescriptor();
  }
  test::CLogCapture quiet;
  for (const char* path : {"self.vmdk", "a.vmdk"}) {
    const kx::CIOError error = test::caught([&] { read(path, 0, 1); }, kx::CIOError(0, ""));
    EXPECT_EQ(error.getMessage(), "VMDK parent chain leads back to a disk already in it.") << path;
  }
  uint32_t cid = make("d0.vmdk", 8 * kMiB, false, "", 0xFFFFFFFF, 0, 0, 0);
  for (int i = 1; i <= zarn::CVMDKParentDiskDataProvider::kMaxChainDepth + 1; ++i) {
    cid = make("d" + std::to_string(i) + ".vmdk", 8 * kMiB, false, "d" + std::to_string(i - 1) + ".vmdk", cid, 0, 0, 0);
  }
  const kx::CIOError error = test::caught([&] { read("d256.vmdk", 0, 1); }, kx::CIOError(0, ""));
  EXPECT_EQ(error.getMessage(), "VMDK parent chain is too deep.");
  EXPECT_EQ(read("d255.vmdk", 0, 1), Bytes(1, 0));  // 255 parents are fine
}

TEST_F(ParentChainTest, MakingGrainsIndependentLetsTheChildStandAlone) {
  for (bool compressed : {false, true}) {
    const uint32_t base = make("base.vmdk", 8 * kMiB, compressed, "", 0xFFFFFFFF, 0, 100, 1);
    make("child.vmdk", 12 * kMiB, compressed, "C:\\elsewhere\\base.vmdk", base, 50, 10, 2);  // the base lies beside it
    const Bytes before = read("child.vmdk", 0, static_cast<int>(12 * kMiB));
    {
      auto child = kx::create<zarn::CVMDKDisk>(fs_.get(), uri("child.vmdk"), kx::IIOStream::ACCESS_READ_WRITE, "");
      int64_t copied = 0;
      for (int64_t g = 0; g < 192; ++g) copied += child->makeGrainIndependentOfParent(g) > 0;
      EXPECT_EQ(copied, 192);
    }
    fs_->deleteFile(uri("base.vmdk"), false);
    auto child = kx::create<zarn::CVMDKDisk>(fs_.get(), uri("child.vmdk"), kx::IIOStream::ACCESS_READ, "");
    Bytes after(before.size());
    child->read(after.data(), static_cast<int>(after.size()));
    EXPECT_TRUE(after == before) << compressed;
  }
}

TEST_F(ParentChainTest, AnOnDemandChildReadsItsParentAndMakesAFileOnlyWhenItCopies) {
  const uint32_t base = make("base.vmdk", 24 * kMiB, false, "", 0xFFFFFFFF, 0, 384, 1);
  zarn::CVMDKDisk::create(fs_.get(), uri("child.vmdk"), 24 * kMiB, "", false, -1, 4 * kMiB, "base.vmdk", base, true);
  const size_t files = fs_->listFiles().size();
  EXPECT_EQ(read("child.vmdk", 0, static_cast<int>(24 * kMiB)), test::noiseGrain(24 * kMiB, 1));
  EXPECT_EQ(fs_->listFiles().size(), files) << "reading makes no file";
  {
    auto child = kx::create<zarn::CVMDKDisk>(fs_.get(), uri("child.vmdk"), kx::IIOStream::ACCESS_READ_WRITE, "");
    EXPECT_EQ(child->makeGrainIndependentOfParent(300), 65536);
  }
  EXPECT_EQ(fs_->listFiles().size(), files + 1) << "exactly the extent of grain 300";
  fs_->deleteFile(uri("base.vmdk"), false);
  EXPECT_EQ(read("child.vmdk", 300 * 65536, 65536), noiseAt(300, 1, 0));
}

}  // namespace
