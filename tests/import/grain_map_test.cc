// Where the grains of a foreign extent lie: the header's directory, the
// footer's, or one scan of the markers when the end of the file is missing or
// damaged, which keeps what lies before the first damage.
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
#include "zarn/low_level_file_stream.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Source = zarn::CVMDKForeignGrainMap::Source;
const kx::CURI kURI{kx::String("file:///vms/disk.vmdk")};

class GrainMapTest : public ::testing::Test {
 protected:
  GrainMapTest() {
    options_.grainSectors = 8;  // 50 grains of 4 KiB in 4 tables: every third grain zeros
    options_.entriesPerTable = 16;
    for (int g = 0; g < 50; ++g) {
      const Bytes grain = g % 3 == 0 ? Bytes(4096, 0) : test::noiseGrain(4096, g);
      raw_.insert(raw_.end(), grain.begin(), grain.end());
    }
  }
  kx::P<zarn::CVMDKForeignGrainMap> open(const Bytes& bytes, bool compressed = true) {
    fs_->setFileData(kURI, bytes.data(), bytes.size());
    stream_ = zarn::openVMDKFileStream(fs_.get(), kURI, kx::IIOStream::ACCESS_READ);
    kx::CDataInStream in(*stream_);
    header_.load(in);
    return kx::create<zarn::CVMDKForeignGrainMap>(stream_.get(), header_, compressed);
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::P<kx::IIOStream> stream_;
  zarn::CVMDKSparseExtentHeader header_;
  Bytes raw_;
  test::CImageOptions options_;
};

// Each case: how the file is made and damaged, where the map must come from,
// the first grain lost to the damage, and what ends the scan.
TEST_F(GrainMapTest, FindsEachGrainWhereTheFileKeepsIt) {
  using Options = test::CImageOptions;
  const auto noFooter = [](Options& o) { o.footer = false; };
  const auto none = [](Bytes&) {};
  const auto at = [](Bytes& b, size_t sector, size_t offset, uint64_t value, int width) {
    test::putLE(b, sector * 512 + offset, value, width);
  };
  test::CForeignImage image;  // of the case running
  const auto footer = [&] { return image.footerSector; };
  const auto grain7 = [&] { return image.grainSectors[7]; };  // grains 0, 3 and 6 are zeros
  const auto marker = [&](Bytes& b, uint64_t count, uint32_t type) {
    std::fill(b.begin() + grain7() * 512, b.begin() + grain7() * 512 + 512, 0);
    at(b, grain7(), 0, count, 8), at(b, grain7(), 12, type, 4);
  };
  const struct {
    const char* name;
    std::function<void(Options&)> make;
    std::function<void(Bytes&)> damage;
    Source source;
    int64_t lost;  // grains from here on read as absent; -1 none
    const char* stop;
  } cases[] = {
      {"footer", [](Options&) {}, none, Source::FooterDirectory, -1, ""},
      {"zero sectors behind the end", [](Options& o) { o.zeroSectorsAfterEnd = 100; }, none, Source::FooterDirectory,
       -1, ""},
      {"tables in the head", [](Options& o) { o.directoryAtEnd = o.footer = false; }, none,
       Source::HeaderDirectory, -1, ""},
      {"more zeros behind the end than are searched", [](Options& o) { o.zeroSectorsAfterEnd = 2100; }, none,
       Source::MarkerScan, -1, "end-of-stream marker"},
      {"no footer", noFooter, none, Source::MarkerScan, -1, "end of the file"},
      {"grains written twice", [](Options& o) { o.footer = false, o.rewrites = {{1, Bytes(99, 7)}, {4, Bytes(9, 4)}}; },
       none, Source::MarkerScan, -1, "end of the file"},
      {"footer of zeros", [](Options&) {},
       [&](Bytes& b) { std::fill(b.begin() + footer() * 512, b.begin() + footer() * 512 + 512, 0); },
       Source::MarkerScan, -1, "end-of-stream marker"},
      {"footer marker of another type", [](Options&) {}, [&](Bytes& b) { at(b, footer() - 1, 12, 1, 4); },
       Source::MarkerScan, -1, "end-of-stream marker"},
      {"footer's directory beyond the file", [](Options&) {}, [&](Bytes& b) { at(b, footer(), 56, 1 << 30, 8); },
       Source::MarkerScan, -1, "end-of-stream marker"},
      {"footer's check bytes broken", [](Options&) {}, [&](Bytes& b) { at(b, footer(), 74, 'X', 1); },
       Source::MarkerScan, -1, "end-of-stream marker"},
      {"end-of-stream marker missing", [](Options&) {}, [](Bytes& b) { b.resize(b.size() - 512); },
       Source::MarkerScan, -1, "end of the file"},
      {"cut in grain 7", [](Options&) {}, [&](Bytes& b) { b.resize(grain7() * 512 + 20); }, Source::MarkerScan, 7,
       "grain cut short"},
      {"marker of unknown type", noFooter, [&](Bytes& b) { marker(b, 0, 7); }, Source::MarkerScan, 7, "unknown type"},
      {"marker of tables past the end", noFooter, [&](Bytes& b) { marker(b, 1 << 20, 1); }, Source::MarkerScan, 7,
       "runs past the end"},
      {"marker with bytes in its padding", noFooter, [&](Bytes& b) { marker(b, 4, 1), at(b, grain7(), 300, 1, 1); },
       Source::MarkerScan, 7, "neither a grain nor a marker"},
      {"grain of impossible size", noFooter, [&](Bytes& b) { at(b, grain7(), 8, 0x7FFFFFFF, 4); },
       Source::MarkerScan, 7, "impossible size"},
      {"grain beyond the extent", noFooter, [&](Bytes& b) { at(b, grain7(), 0, 50 * 8, 8); }, Source::MarkerScan, 7,
       "beyond the extent"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Options options = options_;
    c.make(options);
    image = test::makeStreamOptimizedImage(raw_, options);
    Bytes bytes = image.bytes;
    c.damage(bytes);
    test::CLogCapture log;
    auto map = open(bytes);
    EXPECT_EQ(map->getSource(), c.source);
    EXPECT_FALSE(map->hasSlotDirectory());
    for (int64_t g = 0; g < 50; ++g) {
      EXPECT_EQ(map->getEntry(g), c.lost >= 0 && g >= c.lost ? 0 : image.grainSectors[g]) << g;
    }
    ASSERT_EQ(log.count(kx::LogLevel::Warning), c.source == Source::MarkerScan ? 1u : 0u);
    if (!log.lines.empty()) {
      EXPECT_NE(log.lines[0].text.find(c.stop), std::string::npos) << log.lines[0].text;
    }
  }
}

// A table beyond the file spoils its own grains only; a plain extent without a
// directory in the file is refused at once.
TEST_F(GrainMapTest, DirectoryOrTableBeyondTheFileIsDamage) {
  options_.directoryAtEnd = options_.footer = false;
  const test::CForeignImage stream = test::makeStreamOptimizedImage(raw_, options_);
  Bytes bytes = stream.bytes;
  test::putLE(bytes, stream.directorySector * 512 + 4, bytes.size() / 512, 4);
  auto map = open(bytes);
  const kx::CIOError error = test::caught([&] { map->getEntry(16); }, kx::CIOError(0, ""));
  EXPECT_EQ(error.getCode(), 5);
  EXPECT_EQ(error.getProps().get("uri"), kURI.toString(true));
  EXPECT_EQ(error.getProps().get("tableIndex"), "1");
  for (int64_t g : {0, 1, 15, 32, 49}) EXPECT_EQ(map->getEntry(g), stream.grainSectors[g]) << g;

  const test::CForeignImage plain = test::makeZeroedSparseImage(raw_, options_);
  for (uint64_t directory : {uint64_t{0}, ~uint64_t{0}, uint64_t{plain.bytes.size() / 512}, uint64_t{1} << 60}) {
    SCOPED_TRACE(directory);
    bytes = plain.bytes;
    test::putLE(bytes, 56, directory, 8);
    EXPECT_EQ(test::ioErrorCode([&] { open(bytes, false); }), 5);
  }
}

}  // namespace
