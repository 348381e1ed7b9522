// Foreign disks that qemu-img and qemu-io make, read byte for byte as
// qemu-img reads them and with the allocation qemu-img maps; the same disks
// cut short, with their ends overwritten and with single bits flipped in
// their tables and grain markers read cleanly or are refused cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
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

struct CMapRun {
  int64_t start, length;
  int depth;
  bool data;
};

class ForeignDiskInteropTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::hasPeerTool(kQemuImg.c_str()) || !test::hasPeerTool(kQemuIo.c_str())) {
      GTEST_SKIP() << "qemu-img or qemu-io not installed (qemu-utils)";
    }
  }
  std::string path(const std::string& name) const { return test::shellQuote(dir_.getPath() + "/" + name); }
  kx::CURI uri(const std::string& name) const { return dir_.getFileURI(name); }
  void run(const std::string& command) {
    std::string output;
    ASSERT_EQ(test::runPeerTool("cd " + test::shellQuote(dir_.getPath()) + " && " + command, output), 0)
        << command << "\n" << output;
  }
  void putRaw(const std::string& name, const Bytes& bytes) { test::writeFileBytes(*fs_, uri(name), bytes); }
  Bytes qemuRead(const std::string& name) {
    run(kQemuImg + " convert -O raw " + path(name) + " qemu.raw");
    return test::readFileBytes(*fs_, uri("qemu.raw"));
  }
  // qemu-img map of the disk, one run per line of its JSON output.
  std::vector<CMapRun> qemuMap(const std::string& name) {
    std::string output;
    EXPECT_EQ(test::runPeerTool(kQemuImg + " map --output=json " + path(name), output), 0) << output;
    std::vector<CMapRun> runs;
    const auto number = [&](size_t line, const char* key) {
      const size_t at = output.find(key, line);
      return at == std::string::npos ? int64_t{-1} : std::stoll(output.substr(at + std::strlen(key)));
    };
    for (size_t line = output.find('{'); line != std::string::npos; line = output.find('{', line + 1)) {
      const size_t end = output.find('}', line);
      const std::string text = output.substr(line, end - line);
      runs.push_back({number(line, "\"start\": "), number(line, "\"length\": "),
                      static_cast<int>(number(line, "\"depth\": ")),
                      text.find("\"data\": true") != std::string::npos});
    }
    return runs;
  }
  static Bytes readAll(zarn::CVMDKForeignDisk& disk) {
    Bytes out(static_cast<size_t>(disk.getSizeBytes()));
    disk.seek(0);
    disk.read(out.data(), static_cast<int>(out.size()));
    return out;
  }
  // Each grain's depth as this library sees it against qemu-img's map: a
  // grain with data at depth d in qemu's map has depth d here, any other -1.
  void expectSameAllocation(zarn::CVMDKForeignDisk& disk, const std::string& name) {
    std::vector<int> expected(static_cast<size_t>((disk.getSizeBytes() + kGrain - 1) / kGrain), -1);
    for (const CMapRun& run : qemuMap(name)) {
      if (!run.data) continue;
      for (int64_t at = run.start; at < run.start + run.length; at += kGrain) expected[at / kGrain] = run.depth;
    }
    for (size_t g = 0; g < expected.size(); ++g) {
      disk.seek(static_cast<int64_t>(g) * kGrain);
      EXPECT_EQ(disk.getAllocationDepth(), expected[g]) << name << " grain " << g;
    }
  }
  enum class Expect { Same, SameOrZeros, Anything };
  // Reads grain by grain: each grain reads as `expected` (or as zeros, or as
  // anything, as `expect` allows) or fails as damage; nothing else may
  // happen. Returns the grains that read as expected.
  int readCleanly(zarn::CVMDKForeignDisk& disk, const Bytes& expected, Expect expect = Expect::Same) {
    int good = 0;
    Bytes grain(kGrain);
    for (int64_t at = 0; at < disk.getSizeBytes(); at += kGrain) {
      const int size = static_cast<int>(std::min<int64_t>(kGrain, disk.getSizeBytes() - at));
      disk.seek(at);
      try {
        disk.read(grain.data(), size);
        const bool same = at + size <= static_cast<int64_t>(expected.size()) &&
                          std::equal(grain.begin(), grain.begin() + size, expected.begin() + at);
        const bool zeros = std::all_of(grain.begin(), grain.begin() + size, [](unsigned char b) { return b == 0; });
        EXPECT_TRUE(same || expect == Expect::Anything || (expect == Expect::SameOrZeros && zeros)) << "grain at " << at;
        good += same;
      } catch (const kx::CIOError& error) {
        EXPECT_EQ(error.getCode(), 5) << error.what();
        ++damageSeen_;
      }
    }
    return good;
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
  int damageSeen_ = 0;  // grains that readCleanly saw fail as damage
};

TEST_F(ForeignDiskInteropTest, QemuDisksReadAsQemuReadsThem) {
  const struct {
    const char* name;
    Bytes data;
  } sizes[] = {
      {"no data", Bytes(1 << 20, 0)},
      {"a sector past a grain border", test::noiseGrain(kGrain + 512, 1)},
      {"3 MiB of mixed data", test::mixedData(3 * (1 << 20) + 4 * kGrain + 1024)},
  };
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
    for (const auto& size : sizes) {
      SCOPED_TRACE(std::string(layout.subformat) + ", " + size.name);
      putRaw("model.raw", size.data);
      run(kQemuImg + " convert -f raw -O vmdk -o subformat=" + layout.subformat + layout.options +
          " model.raw d.vmdk");
      if (std::string(layout.options).find("zeroed_grain") != std::string::npos) {
        run(kQemuIo + " -c 'write -z 0 64k'" +
            (size.data.size() >= (2 << 20) ? " -c 'write -z 1M 192k' -c 'write -P 0x5a 1088k 64k'" : "") + " d.vmdk");
      }
      auto disk = kx::create<zarn::CVMDKForeignDisk>(fs_.get(), uri("d.vmdk"));
      EXPECT_EQ(disk->getForeignReason(), layout.reason);
      EXPECT_EQ(disk->getCreateType(), layout.subformat);
      EXPECT_TRUE(readAll(*disk) == qemuRead("d.vmdk"));
      expectSameAllocation(*disk, "d.vmdk");
    }
    // An empty disk of the layout.
    SCOPED_TRACE(std::string(layout.subformat) + ", 0 bytes");
    run(kQemuImg + " create -f vmdk -o subformat=" + layout.subformat + layout.options + " e.vmdk 0");
    EXPECT_EQ(kx::create<zarn::CVMDKForeignDisk>(fs_.get(), uri("e.vmdk"))->getSizeBytes(), 0);
  }
}

TEST_F(ForeignDiskInteropTest, PreparedGrainsOfAStreamUnpackOnOtherThreads) {
  putRaw("model.raw", test::mixedData(2 * (1 << 20)));
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=streamOptimized model.raw s.vmdk");
  auto disk = kx::create<zarn::CVMDKForeignDisk>(fs_.get(), uri("s.vmdk"));
  ASSERT_TRUE(disk->getCompressed());
  const Bytes expected = qemuRead("s.vmdk");
  std::vector<kx::TBuffer<unsigned char>> prepared(static_cast<size_t>(disk->getSizeBytes() / kGrain));
  for (auto& grain : prepared) disk->readPreparedGrainData(grain);
  // Each thread with its own preparer, as a converting tool would do.
  std::vector<int> mismatches(2, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      auto preparer = disk->createDataPreparer();
      kx::TBuffer<unsigned char> aux;
      for (size_t g = t; g < prepared.size(); g += 2) {
        const auto plain = preparer->unprepareGrainData(&prepared[g], &aux);
        mismatches[t] += !std::equal(plain->getData(), plain->getData() + kGrain, expected.begin() + g * kGrain);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, (std::vector<int>{0, 0}));
}

// A download cut short, and an end overwritten: what is there reads as
// qemu-img read it before the damage, the rest fails as damage, or the disk
// is refused as damaged.
TEST_F(ForeignDiskInteropTest, DamagedStreamReadsCleanly) {
  putRaw("model.raw", test::mixedData(3 * (1 << 20)));
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=streamOptimized model.raw s.vmdk");
  const Bytes expected = qemuRead("s.vmdk");
  const Bytes whole = test::readFileBytes(*fs_, uri("s.vmdk"));
  const size_t head = 128 * 512;
  const struct {
    const char* name;
    std::function<Bytes()> damage;
  } cases[] = {
      {"cut at 25%", [&] { return Bytes(whole.begin(), whole.begin() + head + (whole.size() - head) / 4); }},
      {"cut at 50%", [&] { return Bytes(whole.begin(), whole.begin() + head + (whole.size() - head) / 2); }},
      {"cut at 75%", [&] { return Bytes(whole.begin(), whole.begin() + head + (whole.size() - head) * 3 / 4 + 7); }},
      {"end overwritten",
       [&] {
         Bytes bytes = whole;
         const Bytes noise = test::noiseGrain(1536, 9);
         std::copy(noise.begin(), noise.end(), bytes.end() - 1536);
         return bytes;
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    putRaw("cut.vmdk", c.damage());
    test::CLogCapture quiet;
    try {
      auto disk = kx::create<zarn::CVMDKForeignDisk>(fs_.get(), uri("cut.vmdk"));
      EXPECT_GT(readCleanly(*disk, expected), 0);
    } catch (const kx::CIOError& error) {
      EXPECT_EQ(error.getCode(), 5) << error.what();
    }
  }
}

// One bit at a time in the directory, the tables and the grain markers of a
// stream-optimized disk: each grain reads as before, or fails as damage, or
// reads as zeros where the flip made a table entry 0 ("nothing stored"),
// which no reader can tell from the truth; or the disk is refused. A plain
// sparse disk has nothing to check its tables by: a flipped entry may read
// other bytes of the file, and only a crash, a hang or an error other than
// damage would be wrong.
TEST_F(ForeignDiskInteropTest, FlippedBitsInTablesAndMarkers) {
  putRaw("model.raw", test::mixedData(2 * (1 << 20) + 3 * kGrain));
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=streamOptimized model.raw s.vmdk");
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=monolithicSparse,zeroed_grain=on model.raw z.vmdk");
  run(kQemuIo + " -c 'write -z 128k 128k' z.vmdk");
  for (const char* name : {"s.vmdk", "z.vmdk"}) {
    SCOPED_TRACE(name);
    const Bytes expected = qemuRead(name);
    const Bytes whole = test::readFileBytes(*fs_, uri(name));
    // The bytes worth hitting: directory, tables, and each grain's header.
    std::vector<size_t> targets;
    const uint64_t directory = test::le64(whole, 56);
    const uint64_t grains = (test::le64(whole, 12) + 127) / 128;
    for (uint64_t t = 0; t < (grains + 511) / 512; ++t) {
      for (size_t i = 0; i < 4; ++i) targets.push_back(directory * 512 + t * 4 + i);
      const uint64_t table = test::le32(whole, directory * 512 + t * 4);
      for (uint64_t e = 0; e < 512 && t * 512 + e < grains; ++e) {
        for (size_t i = 0; i < 4; ++i) targets.push_back(table * 512 + e * 4 + i);
        const uint64_t sector = test::le32(whole, table * 512 + e * 4);
        if (sector > 1 && std::string(name) == "s.vmdk") {
          for (size_t i = 0; i < 12; ++i) targets.push_back(sector * 512 + i);
        }
      }
    }
    uint64_t x = 12345;
    damageSeen_ = 0;
    int refused = 0;
    for (int flip = 0; flip < 120; ++flip) {
      x = x * 6364136223846793005ULL + 1442695040888963407ULL;
      const size_t at = targets[(x >> 33) % targets.size()];
      const int bit = static_cast<int>((x >> 20) % 8);
      SCOPED_TRACE(std::to_string(at) + ":" + std::to_string(bit));
      Bytes bytes = whole;
      bytes[at] ^= static_cast<unsigned char>(1 << bit);
      putRaw("flipped.vmdk", bytes);
      test::CLogCapture quiet;
      try {
        // The embedded descriptor names the original file: read through a
        // descriptor of our own that names the flipped copy.
        putRaw("flipped-desc.vmdk",
               [&] {
                 const std::string text = "# Disk DescriptorFile\nversion=1\nCID=1\nparentCID=ffffffff\n"
                                          "createType=\"monolithicSparse\"\nRW " +
                                          std::to_string(expected.size() / 512) + " SPARSE \"flipped.vmdk\"\n";
                 return Bytes(text.begin(), text.end());
               }());
        auto disk = kx::create<zarn::CVMDKForeignDisk>(fs_.get(), uri("flipped-desc.vmdk"));
        readCleanly(*disk, expected, std::string(name) == "s.vmdk" ? Expect::SameOrZeros : Expect::Anything);
      } catch (const kx::CIOError& error) {
        EXPECT_EQ(error.getCode(), 5) << error.what();
        ++refused;
      }
    }
    // The flips were seen, as damage of grains or of the whole disk.
    if (std::string(name) == "s.vmdk") {
      EXPECT_GT(damageSeen_ + refused, 20);
    }
  }
}

// A qemu child over a stream-optimized qemu base: bytes and depths as qemu
// sees them.
TEST_F(ForeignDiskInteropTest, QemuChildOverStreamBase) {
  putRaw("model.raw", test::mixedData(3 * (1 << 20)));
  run(kQemuImg + " convert -f raw -O vmdk -o subformat=streamOptimized model.raw base.vmdk");
  run(kQemuImg + " create -f vmdk -b base.vmdk -F vmdk child.vmdk");
  run(kQemuIo + " -c 'write -P 0x5a 100000 200000' -c 'write -P 0x33 2M 64k' child.vmdk");
  auto disk = kx::create<zarn::CVMDKForeignDisk>(fs_.get(), uri("child.vmdk"));
  EXPECT_EQ(disk->getParentDiskMainURI(), uri("base.vmdk"));
  EXPECT_TRUE(readAll(*disk) == qemuRead("child.vmdk"));
  expectSameAllocation(*disk, "child.vmdk");
  EXPECT_EQ(disk->getChainDiskURI(1), uri("base.vmdk"));
}

}  // namespace
