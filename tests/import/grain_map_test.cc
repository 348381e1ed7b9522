// Where the grains of a foreign extent lie: from the header's directory, the
// footer's, or one scan of the markers when the end of the file is missing or
// damaged; what a scan keeps when it meets damage; refusals of directories
// and tables that don't lie in the file.
#include "import/grain_map.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kx/data_stream.h"
#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/foreign_images.h"
#include "tests/support/grain_data.h"
#include "tests/support/log_capture.h"
#include "zarn/disk.h"
#include "zarn/low_level_file_stream.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Source = zarn::CVMDKForeignGrainMap::Source;
constexpr int kGrainSectors = 8;
constexpr int kGrainBytes = kGrainSectors * 512;
const kx::CURI kURI{kx::String("file:///vms/disk.vmdk")};

// `grains` grains of 4 KiB, every third one zeros, the rest noise or text.
Bytes patterned(int grains) {
  Bytes raw;
  for (int g = 0; g < grains; ++g) {
    const Bytes grain = g % 3 == 0 ? Bytes(kGrainBytes, 0)
                        : g % 2   ? test::noiseGrain(kGrainBytes, g)
                                  : test::textGrain(kGrainBytes, g);
    raw.insert(raw.end(), grain.begin(), grain.end());
  }
  return raw;
}

test::CStreamImageOptions smallGrains() {
  test::CStreamImageOptions options;
  options.grainSizeSectors = kGrainSectors;
  options.entriesPerTable = 16;
  return options;
}

class GrainMapTest : public ::testing::Test {
 protected:
  kx::P<zarn::CVMDKForeignGrainMap> open(const Bytes& bytes, bool compressed = true) {
    fs_->setFileData(kURI, bytes.data(), bytes.size());
    stream_ = zarn::openVMDKFileStream(fs_.get(), kURI, kx::IIOStream::ACCESS_READ);
    kx::CDataInStream in(*stream_);
    header_.load(in);
    return kx::create<zarn::CVMDKForeignGrainMap>(stream_.get(), header_, compressed);
  }
  // Every grain's entry as the map gives it.
  static std::vector<uint64_t> entries(zarn::CVMDKForeignGrainMap& map) {
    std::vector<uint64_t> out;
    for (int64_t g = 0; g < map.getGrainCount(); ++g) out.push_back(map.getEntry(g));
    return out;
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::P<kx::IIOStream> stream_;
  zarn::CVMDKSparseExtentHeader header_;
  const Bytes raw_ = patterned(50);  // 4 tables of 16 entries, the last one part full
};

TEST_F(GrainMapTest, FindsTheDirectoryWhereTheFileKeepsIt) {
  const struct {
    const char* name;
    std::function<void(test::CStreamImageOptions&)> change;
    Source source;
  } cases[] = {
      {"footer at the end", [](auto&) {}, Source::FooterDirectory},
      {"zero sectors behind the end", [](auto& o) { o.zeroSectorsAfterEnd = 100; }, Source::FooterDirectory},
      {"tables in the head", [](auto& o) { o.directoryAtEnd = false, o.footer = false; }, Source::HeaderDirectory},
      {"no footer", [](auto& o) { o.footer = false; }, Source::MarkerScan},
      {"more zeros behind the end than are searched",
       [](auto& o) { o.zeroSectorsAfterEnd = zarn::CVMDKForeignGrainMap::kMaxTailPaddingSectors + 10; },
       Source::MarkerScan},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::CStreamImageOptions options = smallGrains();
    c.change(options);
    const test::CForeignImage image = test::makeStreamOptimizedImage(raw_, options);
    test::CLogCapture log;
    auto map = open(image.bytes);
    EXPECT_EQ(map->getSource(), c.source);
    EXPECT_EQ(entries(*map), image.grainSectors);
    EXPECT_EQ(log.count(kx::LogLevel::Warning), c.source == Source::MarkerScan ? 1u : 0u);
    EXPECT_FALSE(map->hasSlotDirectory());
  }
}

// A damaged end of an intact stream: the scan finds every grain.
TEST_F(GrainMapTest, DamagedFooterFallsBackToTheScan) {
  const test::CForeignImage image = test::makeStreamOptimizedImage(raw_, smallGrains());
  const size_t footer = image.footerSector * 512;
  const struct {
    const char* name;
    std::function<void(Bytes&)> damage;
  } cases[] = {
      {"footer overwritten with zeros", [&](Bytes& b) { std::fill(b.begin() + footer, b.begin() + footer + 512, 0); }},
      {"footer overwritten with noise",
       [&](Bytes& b) {
         const Bytes noise = test::noiseGrain(512, 7);
         std::copy(noise.begin(), noise.end(), b.begin() + footer);
       }},
      {"footer marker of another type", [&](Bytes& b) { test::putLE(b, footer - 512 + 12, 1, 4); }},
      {"footer marker for two sectors", [&](Bytes& b) { test::putLE(b, footer - 512, 2, 8); }},
      {"footer says directory at end", [&](Bytes& b) { test::putLE(b, footer + 56, ~uint64_t{0}, 8); }},
      {"footer's directory beyond the file", [&](Bytes& b) { test::putLE(b, footer + 56, 1 << 30, 8); }},
      {"footer of another capacity", [&](Bytes& b) { test::putLE(b, footer + 12, 12345, 8); }},
      {"footer of another grain size", [&](Bytes& b) { test::putLE(b, footer + 20, 16, 8); }},
      {"footer's check bytes broken", [&](Bytes& b) { b[footer + 74] = 'X'; }},
      {"end-of-stream marker missing", [&](Bytes& b) { b.resize(b.size() - 512); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = image.bytes;
    c.damage(bytes);
    test::CLogCapture log;
    auto map = open(bytes);
    EXPECT_EQ(map->getSource(), Source::MarkerScan);
    EXPECT_EQ(entries(*map), image.grainSectors);
    ASSERT_EQ(log.count(kx::LogLevel::Warning), 1u);
    EXPECT_NE(log.lines[0].text.find("read 33 grains"), std::string::npos) << log.lines[0].text;
  }
}

// A download cut short anywhere: the grains wholly before the cut are found,
// none after it, the grain cut in two neither.
TEST_F(GrainMapTest, CutFileKeepsTheGrainsBeforeTheCut) {
  const test::CForeignImage image = test::makeStreamOptimizedImage(raw_, smallGrains());
  for (int percent : {25, 50, 75, 99}) {
    SCOPED_TRACE(percent);
    const size_t head = 128 * 512;
    const size_t cut = head + (image.bytes.size() - head) * percent / 100 + 3;
    const Bytes bytes(image.bytes.begin(), image.bytes.begin() + cut);
    test::CLogCapture log;
    auto map = open(bytes);
    EXPECT_EQ(map->getSource(), Source::MarkerScan);
    int found = 0;
    for (size_t g = 0; g < image.grainSectors.size(); ++g) {
      const uint64_t sector = image.grainSectors[g];
      const bool whole = sector != 0 && sector * 512 + 12 + test::le32(image.bytes, sector * 512 + 8) <= cut;
      EXPECT_EQ(map->getEntry(static_cast<int64_t>(g)), whole ? sector : 0u) << g;
      found += whole;
    }
    EXPECT_GT(found, 0);
    EXPECT_EQ(log.count(kx::LogLevel::Warning), 1u);
  }
}

TEST_F(GrainMapTest, ScanTakesTheLastMarkerOfAGrain) {
  test::CStreamImageOptions options = smallGrains();
  options.footer = false;
  options.rewrites = {{1, test::textGrain(kGrainBytes, 99)}, {4, Bytes(kGrainBytes, 0x44)}};
  const test::CForeignImage image = test::makeStreamOptimizedImage(raw_, options);
  test::CLogCapture log;
  auto map = open(image.bytes);
  ASSERT_EQ(map->getSource(), Source::MarkerScan);
  EXPECT_EQ(log.count(kx::LogLevel::Warning), 1u);
  EXPECT_EQ(entries(*map), image.grainSectors);
  // The rewrites follow the last grain's first version.
  EXPECT_GT(map->getEntry(1), image.grainSectors[49]);
  EXPECT_GT(map->getEntry(4), map->getEntry(1));
}

// Damage in the middle of the stream ends the scan there: what came before
// is kept, nothing behind it is taken on trust.
TEST_F(GrainMapTest, ScanStopsAtDamage) {
  test::CStreamImageOptions options = smallGrains();
  options.footer = false;
  const test::CForeignImage image = test::makeStreamOptimizedImage(raw_, options);
  const size_t at = image.grainSectors[7] * 512;  // grains 0, 3 and 6 are zeros
  const auto marker = [&](Bytes& b, uint64_t count, uint32_t type) {
    std::fill(b.begin() + at, b.begin() + at + 512, 0);
    test::putLE(b, at, count, 8);
    test::putLE(b, at + 12, type, 4);
  };
  const struct {
    const char* name;
    std::function<void(Bytes&)> damage;
    const char* reason;
  } cases[] = {
      {"marker of unknown type",
       [&](Bytes& b) { marker(b, 0, 7); },
       "unknown type"},
      {"grain of impossible size", [&](Bytes& b) { test::putLE(b, at + 8, 0x7FFFFFFF, 4); }, "impossible size"},
      {"grain beyond the extent", [&](Bytes& b) { test::putLE(b, at, 50 * kGrainSectors, 8); }, "beyond the extent"},
      {"grain off a grain border", [&](Bytes& b) { test::putLE(b, at, 7 * kGrainSectors + 1, 8); }, "beyond the extent"},
      {"marker whose tables run past the end",
       [&](Bytes& b) { marker(b, 1 << 20, 1); },
       "runs past the end"},
      {"marker with a negative count",
       [&](Bytes& b) { marker(b, ~uint64_t{0}, 1); },
       "runs past the end"},
      {"marker with bytes in its padding",
       [&](Bytes& b) {
         marker(b, 4, 1);
         b[at + 300] = 1;
       },
       "neither a grain nor a marker"},
      {"zero sector", [&](Bytes& b) { std::fill(b.begin() + at, b.begin() + at + 512, 0); }, "end-of-stream"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = image.bytes;
    c.damage(bytes);
    test::CLogCapture log;
    auto map = open(bytes);
    ASSERT_EQ(map->getSource(), Source::MarkerScan);
    for (int64_t g = 0; g < map->getGrainCount(); ++g) {
      EXPECT_EQ(map->getEntry(g), g < 7 ? image.grainSectors[g] : 0u) << g;
    }
    ASSERT_EQ(log.count(kx::LogLevel::Warning), 1u);
    EXPECT_NE(log.lines[0].text.find(c.reason), std::string::npos) << log.lines[0].text;
  }
}

TEST_F(GrainMapTest, TableBeyondTheFileSpoilsOnlyItsGrains) {
  test::CStreamImageOptions options = smallGrains();
  options.directoryAtEnd = false;
  options.footer = false;
  const test::CForeignImage image = test::makeStreamOptimizedImage(raw_, options);
  Bytes bytes = image.bytes;
  test::putLE(bytes, image.directorySector * 512 + 4, bytes.size() / 512, 4);  // table 1 at the end of the file
  auto map = open(bytes);
  const kx::CIOError error = test::caught([&] { map->getEntry(16); }, kx::CIOError(0, ""));
  EXPECT_EQ(error.getCode(), 5);
  EXPECT_EQ(error.getProps().get("uri"), kURI.toString(true));
  EXPECT_EQ(error.getProps().get("tableIndex"), "1");
  for (int64_t g : {0, 1, 15, 32, 49}) EXPECT_EQ(map->getEntry(g), image.grainSectors[g]) << g;
}

TEST_F(GrainMapTest, PlainExtentWithoutADirectoryIsRefused) {
  const test::CForeignImage image = test::makeZeroedSparseImage(raw_, {2}, kGrainSectors);
  EXPECT_EQ(entries(*open(image.bytes, false)), image.grainSectors);
  for (uint64_t directory : {uint64_t{0}, ~uint64_t{0}, uint64_t{image.bytes.size() / 512}, uint64_t{1} << 60}) {
    SCOPED_TRACE(directory);
    Bytes bytes = image.bytes;
    test::putLE(bytes, 56, directory, 8);
    const kx::CIOError error = test::caught([&] { open(bytes, false); }, kx::CIOError(0, ""));
    EXPECT_EQ(error.getCode(), 5);
    EXPECT_EQ(error.getProps().get("uri"), kURI.toString(true));
  }
}

// This library's own compressed layout keeps its slot directory behind the
// tables; the published one has none.
TEST_F(GrainMapTest, TellsThisLibrarysCompressedLayoutApart) {
  {
    auto disk = zarn::CVMDKDisk::create(fs_.get(), kURI, 8 << 20, "", true, -1, -1, "", 0xFFFFFFFF, false);
    const Bytes data = test::textGrain(65536, 1);
    disk->seek(65536);
    disk->write(data.data(), 65536);
  }
  const kx::TBuffer<unsigned char> own = fs_->getFileData(kURI);
  auto map = open(Bytes(own.getData(), own.getData() + own.getUsed()));
  EXPECT_EQ(map->getSource(), Source::HeaderDirectory);
  EXPECT_TRUE(map->hasSlotDirectory());
  EXPECT_EQ(map->getEntry(0), 0u);
  EXPECT_GT(map->getEntry(1), 1u);
}

}  // namespace
