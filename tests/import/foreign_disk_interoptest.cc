// Foreign disks that qemu-img and qemu-io make, read byte for byte as qemu-img
// reads them and mapped as qemu-img maps them; the same disks cut short, with
// their ends overwritten and with single bits flipped in their tables and
// grain markers, read cleanly or are refused cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/log_capture.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/foreign_disk.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int kGrain = 65536;
const std::string kQemuImg = "/usr/bin/qemu-img";
const std::string kQemuIo = "/usr/bin/qemu-io";

class ForeignDiskInteropTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::hasPeerTool(kQemuImg.c_str()) || !test::hasPeerTool(kQemuIo.c_str())) {
      GTEST_SKIP() << "qemu-img or qemu-io not installed (qemu-utils)";
    }
  }
  std::string run(const std::string& command) {
    std::string output;
    EXPECT_EQ(test::runPeerTool("cd " + test::shellQuote(dir_.getPath()) + " && " + command, output), 0)
        << command << "\n" << output;
    return output;
  }
  void put(const std::string& name, const Bytes& bytes) { test::writeFileBytes(*fs_, dir_.getFileURI(name), bytes); }
  Bytes get(const std::string& name) { return test::readFileBytes(*fs_, dir_.getFileURI(name)); }
  kx::P<zarn::CVMDKForeignDisk> open(const std::string& name) {
    return kx::create<zarn::CVMDKForeignDisk>(fs_.get(), dir_.getFileURI(name));
  }
  Bytes qemuRead(const std::string& name) {
    run(kQemuImg + " convert -O raw " + name + " qemu.raw");
    return get("qemu.raw");
  }
  // Each grain's depth against qemu-img map: where qemu finds data at depth
  // d, d; elsewhere -1.
  void expectSameMap(zarn::CVMDKForeignDisk& disk, const std::string& name) {
    const std::string map = run(kQemuImg + " map --output=json " + name);
    std::vector<int> expected(static_cast<size_t>((disk.getSizeBytes() + kGrain - 1) / kGrain), -1);
    for (size_t at = map.find('{'); at != std::string::npos; at = map.find('{', at + 1)) {
      const auto field = [&](const char* key) { return std::stoll(map.substr(map.find(key, at) + std::strlen(key))); };
      if (map.substr(at, map.find('}', at) - at).find("\"data\": true") == std::string::npos) continue;
      for (int64_t p = field("\"start\": "); p < field("\"start\": ") + field("\"length\": "); p += kGrain) {
        expected[p / kGrain] = static_cast<int>(field("\"depth\": "));
      }
    }
    for (size_t g = 0; g < expected.size(); ++g) {
      disk.seek(static_cast<int64_t>(g) * kGrain);
      EXPECT_EQ(disk.getAllocationDepth(), expected[g]) << name << " grain " << g;
    }
  }
  // Grain by grain: each reads as `expected` (or, with `orZeros`, as zeros)
  // or fails as damage. Returns the grains that failed.
  static int readCleanly(zarn::CVMDKForeignDisk& disk, const Bytes& expected, bool orZeros) {
    int failed = 0;
    Bytes grain(kGrain);
    for (int64_t at = 0; at < disk.getSizeBytes(); at += kGrain) {
      const int size = static_cast<int>(std::min<int64_t>(kGrain, disk.getSizeBytes() - at));
      disk.seek(at);
      try {
        disk.read(grain.data(), size);
        const bool zeros = std::all_of(grain.begin(), grain.begin() + size, [](unsigned char b) { return b == 0; });
        EXPECT_TRUE(std::equal(grain.begin(), grain.begin() + size, expected.begin() + at) || (orZeros && zeros)) << at;
      } catch (const kx::CIOError& error) {
        EXPECT_EQ(error.getCode(), 5) << error.what();
        ++failed;
      }
    }
    return failed;
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
};

TEST_F(ForeignDiskInteropTest, QemuDisksReadAndMapAsQemuSeesThem) {
  const Bytes sizes[] = {Bytes(1 << 20, 0), test::noiseGrain(kGrain + 512, 1),
                         test::mixedData(3 * (1 << 20) + 4 * kGrain + 1024)};
  const struct {
    const char* subformat;
    const char* options;
    const char* reason;
  } layouts[] = {
      {"streamOptimized", "", "published stream-optimized layout"},
      {"monolithicFlat", "", "flat extents"},
      {"twoGbMaxExtentFlat", "", "flat extents"},
      {"monolithicSparse", ",zeroed_grain=on", "grain table entries of 1 (zeroed grains)"},
  };
  for (const auto& layout : layouts) {
    for (const Bytes& data : sizes) {
      SCOPED_TRACE(std::string(layout.subformat) + ", " + std::to_string(data.size()) + " bytes");
      put("model.raw", data);
      run(kQemuImg + " convert -f raw -O vmdk -o subformat=" + layout.subformat + layout.options + " model.raw d.vmdk");
      if (*layout.options) {
        run(kQemuIo + " -c 'write -z 0 64k'" +
            (data.size() >= (2 << 20) ? " -c 'write -z 1M 192k' -c 'write -P 0x5a 1088k 64k'" : "") + " d.vmdk");
      }
      auto disk = open("d.vmdk");
      EXPECT_EQ(disk->getForeignReason(), layout.reason);
      EXPECT_EQ(disk->getCreateType(), layout.subformat);
      Bytes all(static_cast<size_t>(disk->getSizeBytes()));
      disk->read(all.data(), static_cast<int>(all.size()));
      EXPECT_TRUE(all == qemuRead("d.vmdk"));
      expectSameMap(*disk, "d.vmdk");
    }
    run(kQemuImg + " create -f vmdk -o subformat=" + layout.subformat + layout.options + " e.vmdk 0");
    EXPECT_EQ(open("e.vmdk")->getSizeBytes(), 0);
  }
  // A qemu child over a stream-optimized qemu base.
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=streamOptimized model.raw base.vmdk");
  run(kQemuImg + " create -f vmdk -b base.vmdk -F vmdk child.vmdk");
  run(kQemuIo + " -c 'write -P 0x5a 100000 200000' -c 'write -P 0x33 2M 64k' child.vmdk");
  auto child = open("child.vmdk");
  Bytes all(static_cast<size_t>(child->getSizeBytes()));
  child->read(all.data(), static_cast<int>(all.size()));
  EXPECT_TRUE(all == qemuRead("child.vmdk"));
  expectSameMap(*child, "child.vmdk");
}

// A download cut short or an end overwritten, and single flipped bits in the
// directory, the tables and the grain markers: each grain reads as before or
// fails as damage, or the disk is refused as damaged. A flip that turns a
// table entry into 0 ("nothing stored") reads as zeros, which no reader can
// tell from the truth.
TEST_F(ForeignDiskInteropTest, DamagedStreamsReadCleanly) {
  put("model.raw", test::mixedData(3 * (1 << 20)));
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=streamOptimized model.raw s.vmdk");
  const Bytes expected = qemuRead("s.vmdk"), whole = get("s.vmdk");
  std::vector<Bytes> damaged;
  for (int quarter = 1; quarter <= 3; ++quarter) {
    damaged.emplace_back(whole.begin(), whole.begin() + 65536 + (whole.size() - 65536) * quarter / 4 + 7);
  }
  damaged.push_back(whole);
  const Bytes noise = test::noiseGrain(1536, 9);
  std::copy(noise.begin(), noise.end(), damaged.back().end() - 1536);
  // The bytes worth hitting: directory, tables, and each grain's header.
  std::vector<size_t> targets;
  const uint64_t directory = test::le64(whole, 56);
  for (uint64_t t = 0; t * 512 * 128 < test::le64(whole, 12); ++t) {
    for (size_t i = 0; i < 4; ++i) targets.push_back(directory * 512 + t * 4 + i);
    const uint64_t table = test::le32(whole, directory * 512 + t * 4);
    for (uint64_t e = 0; e < 512 && (t * 512 + e) * 128 < test::le64(whole, 12); ++e) {
      const uint64_t sector = test::le32(whole, table * 512 + e * 4);
      for (size_t i = 0; i < 4; ++i) targets.push_back(table * 512 + e * 4 + i);
      for (size_t i = 0; i < 12 && sector > 1; ++i) targets.push_back(sector * 512 + i);
    }
  }
  uint64_t x = 12345;
  for (int flip = 0; flip < 120; ++flip) {
    x = x * 6364136223846793005ULL + 1442695040888963407ULL;
    damaged.push_back(whole);
    damaged.back()[targets[(x >> 33) % targets.size()]] ^= static_cast<unsigned char>(1 << ((x >> 20) % 8));
  }
  // The embedded descriptor names s.vmdk: a descriptor of our own names the copy.
  const std::string text = "createType=\"monolithicSparse\"\nCID=1\nRW " + std::to_string(expected.size() / 512) +
                           " SPARSE \"damaged.vmdk\"\n";
  put("damaged-desc.vmdk", Bytes(text.begin(), text.end()));
  int failures = 0;
  for (size_t i = 0; i < damaged.size(); ++i) {
    SCOPED_TRACE(i);
    put("damaged.vmdk", damaged[i]);
    test::CLogCapture quiet;
    try {
      auto disk = open("damaged-desc.vmdk");
      const int failed = readCleanly(*disk, expected, i >= 4);
      failures += failed;
      if (i < 3) {
        EXPECT_LT(failed, static_cast<int>(expected.size() / kGrain)) << "nothing read from a cut file";
      }
    } catch (const kx::CIOError& error) {
      EXPECT_EQ(error.getCode(), 5) << error.what();
      ++failures;
    }
  }
  EXPECT_GT(failures, 20);  // the damage was seen
}

}  // namespace
