// Differencing disks across implementations, in both directions: a qemu child
// over a zarn base, and a zarn child over a qemu base. Plain disks across the
// two go through zarn-img in tests/tools/zarn_img_interoptest.cc.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/disk.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int64_t kSize = 12 << 20;
const std::string kQemuImg = "/usr/bin/qemu-img";
const std::string kQemuIo = "/usr/bin/qemu-io";

class DiskPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::hasPeerTool(kQemuImg.c_str()) || !test::hasPeerTool(kQemuIo.c_str())) GTEST_SKIP() << "qemu-utils not installed";
  }
  std::string path(const std::string& name) const { return test::shellQuote(dir_.getPath() + "/" + name); }
  kx::CURI uri(const std::string& name) const { return dir_.getFileURI(name); }
  void qemu(const std::string& arguments) {
    std::string output;
    ASSERT_EQ(test::runPeerTool(arguments, output), 0) << arguments << "\n" << output;
  }
  // What qemu-img reads from the disk; also checks it.
  Bytes qemuRead(const std::string& name) {
    std::string output;
    EXPECT_EQ(test::runPeerTool(kQemuImg + " check " + path(name), output), 0) << output;
    qemu(kQemuImg + " convert -O raw " + path(name) + " " + path("out.raw"));
    return test::readFileBytes(*fs_, uri("out.raw"));
  }
  Bytes zarnRead(const std::string& name) {
    auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), uri(name), kx::IIOStream::ACCESS_READ, "");
    Bytes out(static_cast<size_t>(disk->getSizeBytes()));
    disk->read(out.data(), static_cast<int>(out.size()));
    return out;
  }
  // Writes across grain and extent borders, zeros included, into disk and model.
  static void scribble(zarn::CVMDKDisk& disk, Bytes& model, uint64_t seed) {
    for (int i = 0; i < 12; ++i) {
      const int64_t at = static_cast<int64_t>((seed * 7919 + i * 1048573) % (model.size() - 200000));
      const int size = 1000 + static_cast<int>((seed + i * 37) % 150000);
      const Bytes data = i % 4 == 0 ? Bytes(size, 0) : i % 2 ? test::noiseGrain(size, seed + i) : test::textGrain(size, i);
      disk.seek(at);
      disk.write(data.data(), size);
      std::copy(data.begin(), data.end(), model.begin() + at);
    }
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
};

TEST_F(DiskPeerTest, DifferencingDisksAcrossImplementations) {
  // A qemu child over a zarn base, written by qemu-io.
  Bytes base(kSize, 0);
  {
    auto disk = zarn::CVMDKDisk::create(fs_.get(), uri("base.vmdk"), kSize, "", false, -1, -1, "", 0xFFFFFFFF, false);
    scribble(*disk, base, 21);
  }
  qemu(kQemuImg + " create -f vmdk -b base.vmdk -F vmdk " + path("qchild.vmdk"));
  qemu(kQemuIo + " -c 'write -P 0x5a 1000000 200000' " + path("qchild.vmdk"));
  Bytes expected = base;
  std::fill(expected.begin() + 1000000, expected.begin() + 1200000, 0x5a);
  EXPECT_TRUE(zarnRead("qchild.vmdk") == expected);
  EXPECT_TRUE(qemuRead("qchild.vmdk") == expected);

  // A zarn child over a qemu base.
  test::writeFileBytes(*fs_, uri("in.raw"), base);
  qemu(kQemuImg + " convert -f raw -O vmdk " + path("in.raw") + " " + path("qbase.vmdk"));
  const uint32_t cid = kx::create<zarn::CVMDKDisk>(fs_.get(), uri("qbase.vmdk"), kx::IIOStream::ACCESS_READ, "")
                           ->getDescriptor()->getContentID();
  {
    auto child = zarn::CVMDKDisk::create(fs_.get(), uri("zchild.vmdk"), kSize, "", false, -1, -1, "qbase.vmdk", cid, false);
    scribble(*child, base, 33);
  }
  EXPECT_TRUE(qemuRead("zchild.vmdk") == base);
  EXPECT_TRUE(zarnRead("zchild.vmdk") == base);
}

}  // namespace
