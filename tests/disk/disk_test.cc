// The disk through its public interface: made, written, dropped, reopened and
// read back, in every layout, against a plain byte model of the disk.
#include "zarn/disk.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int64_t kMiB = 1 << 20;

struct Layout {
  const char* createType;
  bool compressed;
  int64_t fileSizeLimit;
  const char* password;
  size_t files;  // with the descriptor file, if any
};

const Layout kLayouts[] = {
    {"monolithicSparse", false, -1, "", 1},
    {"twoGbMaxExtentSparse", false, 4 * kMiB, "", 8},
    {"streamOptimized", true, -1, "", 1},
    {"streamOptimized", true, 8 * kMiB, "", 12},
    {"twoGbMaxExtentSparse", false, 4 * kMiB, "p\xC3\xA4ss", 8},
    {"streamOptimized", true, -1, "secret", 1},
};

class DiskTest : public ::testing::Test {
 protected:
  kx::P<zarn::CVMDKDisk> create(const Layout& layout, int64_t size = 24 * kMiB) {
    return zarn::CVMDKDisk::create(fs_.get(), uri_, size, kx::String::FromUTF8(layout.password), layout.compressed, -1,
                                   layout.fileSizeLimit, "", 0xFFFFFFFF, false);
  }
  kx::P<zarn::CVMDKDisk> open(kx::IIOStream::Access access, const char* password = "") {
    return kx::create<zarn::CVMDKDisk>(fs_.get(), uri_, access, kx::String::FromUTF8(password));
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///vms/disk.vmdk")};
};

TEST_F(DiskTest, EveryLayoutReadsBackWhatWasWritten) {
  for (const Layout& layout : kLayouts) {
    SCOPED_TRACE(std::string(layout.createType) + " " + std::to_string(layout.fileSizeLimit) + " " + layout.password);
    for (const kx::CURI& file : fs_->listFiles()) fs_->deleteFile(file, true);
    Bytes model(24 * kMiB, 0);
    {
      auto disk = create(layout);
      ASSERT_EQ(disk->getSizeBytes(), 24 * kMiB);
      EXPECT_EQ(disk->getDescriptor()->getCreateType(), layout.createType);
      // Writes of every shape: across grains and extents, partial grains,
      // zeros over holes and over data, and rewrites that change how well a
      // compressed grain packs.
      uint64_t x = 7;
      for (int i = 0; i < 60; ++i) {
        x = x * 6364136223846793005ULL + 1442695040888963407ULL;
        const int64_t at = static_cast<int64_t>((x >> 20) % (24 * kMiB - 300000));
        const int size = static_cast<int>((x >> 8) % 300000) + 1;
        Bytes data = i % 3 == 0 ? Bytes(size, 0) : i % 3 == 1 ? test::noiseGrain(size, x) : test::textGrain(size, i);
        disk->seek(at);
        disk->write(data.data(), size);
        std::copy(data.begin(), data.end(), model.begin() + at);
      }
    }
    EXPECT_EQ(fs_->listFiles().size(), layout.files);
    auto disk = open(kx::IIOStream::ACCESS_READ, layout.password);
    Bytes back(model.size());
    disk->read(back.data(), static_cast<int>(back.size()));
    EXPECT_TRUE(back == model);
  }
}

}  // namespace
