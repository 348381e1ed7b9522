// zarn-img beside independent VMDK tools: what it makes, qemu-img reads byte
// for byte and finds clean and vmdkinfo parses; what qemu-img makes, zarn-img
// reads, writes into, and qemu-img reads back as written.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr size_t kMiB = 1 << 20;
const std::string kQemuImg = "/usr/bin/qemu-img";
const std::string kVmdkInfo = "/usr/bin/vmdkinfo";

class ZarnImgInteropTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef ZARN_IMG_PATH
    GTEST_SKIP() << "zarn-img is not built";
#endif
    if (!test::hasPeerTool(kQemuImg.c_str())) GTEST_SKIP() << "qemu-img not installed (qemu-utils)";
    if (!test::hasPeerTool(kVmdkInfo.c_str())) GTEST_SKIP() << "vmdkinfo not installed (libvmdk-utils)";
    // 34 MiB: zeros, noise and text, in runs that cross grain borders and the
    // border of the first grain table (32 MiB).
    model_.assign(34 * kMiB, 0);
    const Bytes noise = test::noiseGrain(3 * kMiB + 4321, 17);
    const Bytes text = test::textGrain(kMiB, 4);
    std::copy(noise.begin(), noise.end(), model_.begin() + kMiB + 99);
    std::copy(text.begin(), text.end(), model_.begin() + 32 * kMiB - 300000);
    test::writeFileBytes(*fs_, dir_.getFileURI("model.raw"), model_);
  }
  // Runs a command in the temp folder and expects `status`; gives the output.
  std::string run(const std::string& command, int status = 0) {
    std::string output;
    EXPECT_EQ(test::runPeerTool("cd " + test::shellQuote(dir_.getPath()) + " && " + command, output), status)
        << command << "\n" << output;
    return output;
  }
  std::string zarnImg(const std::string& arguments, int status = 0) {
#ifdef ZARN_IMG_PATH
    return run(std::string(ZARN_IMG_PATH) + " " + arguments, status);
#else
    return std::string();
#endif
  }
  Bytes readRaw(const std::string& name) { return test::readFileBytes(*fs_, dir_.getFileURI(name)); }
  // What qemu-img reads from the disk, after a clean check.
  Bytes qemuRead(const std::string& disk) {
    EXPECT_NE(run(kQemuImg + " check " + disk).find("No errors were found"), std::string::npos) << disk;
    run(kQemuImg + " convert -O raw " + disk + " qemu.raw");
    return readRaw("qemu.raw");
  }
  Bytes zarnRead(const std::string& disk) {
    zarnImg("convert -O raw " + disk + " zarn.raw");
    return readRaw("zarn.raw");
  }
  // Writes noise at an odd offset with zarn-img write, into the model too.
  void zarnWrite(const std::string& disk, size_t offset, size_t size, Bytes& model) {
    const Bytes data = test::noiseGrain(size, offset);
    test::writeFileBytes(*fs_, dir_.getFileURI("patch.bin"), data);
    zarnImg("write --offset " + std::to_string(offset) + " " + disk + " patch.bin");
    std::copy(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(offset));
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
  Bytes model_;
};

TEST_F(ZarnImgInteropTest, DisksMadeByZarnImgReadByQemuImgAndVmdkinfo) {
  const struct {
    const char* name;
    const char* options;
    const char* vmdkinfoType;
  } layouts[] = {
      {"plain.vmdk", "-o subformat=monolithicSparse", "Monolithic sparse"},
      {"split.vmdk", "-o subformat=twoGbMaxExtentSparse,split-size=4M", "2GB extent sparse"},
      {"stream.vmdk", "-o subformat=streamOptimized -j 2", "Stream optimized"},
  };
  for (const auto& l : layouts) {
    SCOPED_TRACE(l.name);
    zarnImg(std::string("convert -O vmdk ") + l.options + " model.raw " + l.name);
    EXPECT_TRUE(qemuRead(l.name) == model_);
    const std::string info = run(kVmdkInfo + " " + l.name);
    EXPECT_NE(info.find(l.vmdkinfoType), std::string::npos) << info;
    EXPECT_NE(info.find("(35651584 bytes)"), std::string::npos) << info;
  }
  // A differencing child over a zarn parent, written at odd places.
  zarnImg("create -o backing-file=plain.vmdk child.vmdk");
  Bytes expected = model_;
  zarnWrite("child.vmdk", 12345, 200000, expected);
  zarnWrite("child.vmdk", 32 * kMiB - 2500, 5000, expected);
  EXPECT_TRUE(qemuRead("child.vmdk") == expected);
  EXPECT_NE(run(kVmdkInfo + " child.vmdk").find("Parent content identifier"), std::string::npos);
}

TEST_F(ZarnImgInteropTest, DisksMadeByQemuImgReadAndWrittenByZarnImg) {
  for (const char* subformat : {"monolithicSparse", "twoGbMaxExtentSparse"}) {
    SCOPED_TRACE(subformat);
    run(kQemuImg + " convert -f raw -O vmdk -o subformat=" + subformat + " model.raw q.vmdk");
    EXPECT_TRUE(zarnRead("q.vmdk") == model_);
    Bytes expected = model_;
    zarnWrite("q.vmdk", 3, 70000, expected);
    zarnWrite("q.vmdk", 8 * kMiB - 100, 300000, expected);
    EXPECT_TRUE(qemuRead("q.vmdk") == expected);
    EXPECT_TRUE(zarnRead("q.vmdk") == expected);
  }
  // A qemu-img child over a qemu-img base: zarn-img reads through the chain,
  // writes partial grains that keep the base's bytes around them.
  run(kQemuImg + " convert -f raw -O vmdk model.raw base.vmdk");
  run(kQemuImg + " create -f vmdk -b base.vmdk -F vmdk child.vmdk");
  EXPECT_TRUE(zarnRead("child.vmdk") == model_);
  Bytes expected = model_;
  zarnWrite("child.vmdk", kMiB + 7, 1000, expected);
  zarnWrite("child.vmdk", 32 * kMiB - 3, 65536, expected);
  EXPECT_TRUE(qemuRead("child.vmdk") == expected);
  EXPECT_TRUE(zarnRead("child.vmdk") == expected);
  EXPECT_NE(zarnImg("map child.vmdk").find("0x100000        0x10000         0      child.vmdk"), std::string::npos);
}

TEST_F(ZarnImgInteropTest, QemuImgStreamOptimizedDiskIsRefused) {
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=streamOptimized model.raw q.vmdk");
  EXPECT_NE(zarnImg("convert q.vmdk out.raw", 1).find("Slot size directory not found in compressed VMDK"),
            std::string::npos);
}

}  // namespace
