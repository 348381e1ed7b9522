// 256 MiB through qemu-img's stream-optimized and zeroed-grain layouts, read
// back byte for byte against qemu-img convert -O raw, with the read rates of
// both printed for comparison.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/grain_data.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/foreign_disk.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;
constexpr int64_t kSize = 256 << 20;
constexpr int kChunk = 4 << 20;
const std::string kQemuImg = "/usr/bin/qemu-img";
const std::string kQemuIo = "/usr/bin/qemu-io";

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class ForeignDiskSlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::hasPeerTool(kQemuImg.c_str()) || !test::hasPeerTool(kQemuIo.c_str())) {
      GTEST_SKIP() << "qemu-img or qemu-io not installed (qemu-utils)";
    }
    // Runs of 64 KiB: zeros, noise, text, text.
    std::ofstream model(dir_.getPath() + "/model.raw", std::ios::binary);
    for (int64_t run = 0; run * 65536 < kSize; ++run) {
      const Bytes grain = run % 4 == 0   ? Bytes(65536, 0)
                          : run % 4 == 1 ? test::noiseGrain(65536, static_cast<uint64_t>(run))
                                         : test::textGrain(65536, static_cast<uint32_t>(run));
      model.write(reinterpret_cast<const char*>(grain.data()), static_cast<std::streamsize>(grain.size()));
    }
  }
  double run(const std::string& command) {
    std::string output;
    const auto start = Clock::now();
    EXPECT_EQ(test::runPeerTool("cd " + test::shellQuote(dir_.getPath()) + " && " + command, output), 0)
        << command << "\n" << output;
    return secondsSince(start);
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
};

TEST_F(ForeignDiskSlowTest, LargeDisksReadAsQemuReadsThem) {
  const struct {
    const char* subformat;
    const char* afterwards;
  } layouts[] = {
      {"streamOptimized", ""},
      {"monolithicSparse,zeroed_grain=on", " && /usr/bin/qemu-io -c 'write -z 32M 64M' d.vmdk"},
  };
  for (const auto& layout : layouts) {
    SCOPED_TRACE(layout.subformat);
    run(kQemuImg + " convert -f raw -O vmdk -o subformat=" + layout.subformat + " model.raw d.vmdk" +
        layout.afterwards);
    const double qemuSeconds = run(kQemuImg + " convert -O raw d.vmdk qemu.raw");

    auto disk = kx::create<zarn::CVMDKForeignDisk>(fs_.get(), dir_.getFileURI("d.vmdk"));
    ASSERT_EQ(disk->getSizeBytes(), kSize);
    std::ifstream expected(dir_.getPath() + "/qemu.raw", std::ios::binary);
    Bytes ours(kChunk), theirs(kChunk);
    double ourSeconds = 0;
    int64_t differing = 0;
    for (int64_t at = 0; at < kSize; at += kChunk) {
      const auto start = Clock::now();
      disk->read(ours.data(), kChunk);
      ourSeconds += secondsSince(start);
      expected.read(reinterpret_cast<char*>(theirs.data()), kChunk);
      differing += ours != theirs;
    }
    EXPECT_EQ(differing, 0);

    // Grains in stored form, as a converting tool reads a compressed source.
    disk->seek(0);
    kx::TBuffer<unsigned char> prepared;
    const auto start = Clock::now();
    for (int64_t at = 0; at < kSize; at += disk->getGrainSizeBytes()) disk->readPreparedGrainData(prepared);
    const double preparedSeconds = secondsSince(start);

    const double mib = static_cast<double>(kSize) / (1 << 20);
    std::printf("%s: read %.0f MiB/s, prepared grains %.0f MiB/s; qemu-img convert -O raw %.0f MiB/s\n",
                layout.subformat, mib / ourSeconds, mib / preparedSeconds, mib / qemuSeconds);
  }
}

}  // namespace
