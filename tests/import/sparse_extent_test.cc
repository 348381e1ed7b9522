// Foreign sparse extents: every layout reads as the bytes it was made from;
// zeroed grains and compressed grains of zeros are zero grains; a damaged
// grain fails its own read and no other; a header that can't be is refused
// at opening with the file named.
#include "import/sparse_extent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/foreign_images.h"
#include "tests/support/grain_data.h"
#include "tests/support/log_capture.h"
#include "zarn/data_preparer.h"

namespace {

using Bytes = std::vector<unsigned char>;
using State = zarn::VMDKForeignGrainState;
constexpr int kGrain = 65536;
const kx::CURI kURI{kx::String("file:///vms/disk.vmdk")};

class SparseExtentTest : public ::testing::Test {
 protected:
  kx::P<zarn::CVMDKForeignSparseExtent> open(const Bytes& bytes, int64_t lineSectors = -1) {
    fs_->setFileData(kURI, bytes.data(), bytes.size());
    return kx::create<zarn::CVMDKForeignSparseExtent>(fs_.get(), kURI, lineSectors < 0 ? sectors() : lineSectors,
                                                      0, unpacker_.get());
  }
  int64_t sectors() const { return static_cast<int64_t>((raw_.size() + 511) / 512); }
  Bytes readGrain(zarn::CVMDKForeignSparseExtent& extent, int64_t g) {
    Bytes out(std::min<size_t>(kGrain, raw_.size() - g * kGrain));
    extent.read(g * kGrain, out.data(), static_cast<int>(out.size()));
    return out;
  }
  Bytes rawGrain(int64_t g) const {
    return Bytes(raw_.begin() + g * kGrain, raw_.begin() + std::min<size_t>(raw_.size(), (g + 1) * kGrain));
  }
  State state(zarn::CVMDKForeignSparseExtent& extent, int64_t g, bool exact) {
    int64_t run = 0;
    const State s = extent.getState(g * kGrain, kGrain, exact, run);
    EXPECT_EQ(run, std::min<int64_t>(kGrain, static_cast<int64_t>(raw_.size()) - g * kGrain));
    return s;
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::P<zarn::CVMDKForeignGrainUnpacker> unpacker_ = kx::create<zarn::CVMDKForeignGrainUnpacker>();
  // 12 grains and a sector: zeros every fourth grain, then noise and text;
  // grain 5 is a grain of zeros that a writer may still store.
  const Bytes raw_ = [] {
    Bytes raw = test::mixedData(12 * kGrain + 512);
    std::fill(raw.begin() + 5 * kGrain, raw.begin() + 6 * kGrain, 0);
    return raw;
  }();
};

TEST_F(SparseExtentTest, EveryLayoutReadsAsMade) {
  test::CStreamImageOptions noFooter, head, zerosStored;
  noFooter.footer = false;
  head.directoryAtEnd = head.footer = false;
  zerosStored.zeroGrainsStored = true;
  const struct {
    const char* name;
    Bytes bytes;
    bool compressed;
  } cases[] = {
      {"stream, footer", test::makeStreamOptimizedImage(raw_).bytes, true},
      {"stream, scanned", test::makeStreamOptimizedImage(raw_, noFooter).bytes, true},
      {"stream, tables in the head", test::makeStreamOptimizedImage(raw_, head).bytes, true},
      {"stream, zero grains stored", test::makeStreamOptimizedImage(raw_, zerosStored).bytes, true},
      {"plain, zeroed grains", test::makeZeroedSparseImage(raw_, {0, 5}).bytes, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::CLogCapture log;
    auto extent = open(c.bytes);
    EXPECT_EQ(extent->getCompressed(), c.compressed);
    Bytes all(raw_.size());
    extent->read(0, all.data(), static_cast<int>(all.size()));
    EXPECT_TRUE(all == raw_);
    // Backwards, in pieces that cross grain borders.
    for (int64_t at = static_cast<int64_t>(raw_.size()) - 7000; at > 0; at -= 50000) {
      Bytes piece(7000);
      extent->read(at, piece.data(), 7000);
      EXPECT_TRUE(std::equal(piece.begin(), piece.end(), raw_.begin() + at)) << at;
    }
    // Grains 4 and 5 hold nothing, or zeros, in every layout; grain 1 data.
    EXPECT_EQ(state(*extent, 1, false), State::Stored);
    EXPECT_EQ(state(*extent, 1, true), State::Stored);
    EXPECT_NE(state(*extent, 4, true), State::Stored);
    EXPECT_NE(state(*extent, 5, true), State::Stored);
  }
}

TEST_F(SparseExtentTest, ZeroGrainsAndAbsentGrainsAreTold) {
  auto plain = open(test::makeZeroedSparseImage(raw_, {1, 4}).bytes);
  EXPECT_EQ(state(*plain, 1, false), State::Zero);  // an entry of 1 hides what the data was
  EXPECT_EQ(state(*plain, 4, false), State::Zero);
  EXPECT_EQ(state(*plain, 8, false), State::Absent);
  EXPECT_TRUE(readGrain(*plain, 1) == Bytes(kGrain, 0));

  test::CStreamImageOptions zerosStored;
  zerosStored.zeroGrainsStored = true;
  auto stream = open(test::makeStreamOptimizedImage(raw_, zerosStored).bytes);
  EXPECT_EQ(state(*stream, 5, false), State::Stored);  // unpacking tells the rest
  EXPECT_EQ(state(*stream, 5, true), State::Zero);
  EXPECT_EQ(state(*stream, 6, true), State::Stored);
  auto sparse = open(test::makeStreamOptimizedImage(raw_).bytes);
  EXPECT_EQ(state(*sparse, 5, true), State::Absent);
}

// The stored form goes out as it is, and unpacks to the grain.
TEST_F(SparseExtentTest, StoredGrainIsHandedOnUnpacked) {
  auto extent = open(test::makeStreamOptimizedImage(raw_).bytes);
  auto preparer = kx::create<zarn::CVMDKDataPreparer>(128, true, -1);
  for (int64_t g = 0; g < 12; ++g) {
    SCOPED_TRACE(g);
    kx::TBuffer<unsigned char> stored, plain;
    const bool found = extent->tryReadStoredGrain(g * kGrain, kGrain, stored);
    EXPECT_EQ(found, g % 4 != 0 && g != 5);
    if (!found) continue;
    EXPECT_EQ(stored.getUsed(), 12 + test::le32(Bytes(stored.getData(), stored.getData() + 12), 8));
    EXPECT_EQ(test::le64(Bytes(stored.getData(), stored.getData() + 12), 0), static_cast<uint64_t>(g * 128));
    const auto unpacked = preparer->unprepareGrainData(&stored, &plain);
    EXPECT_TRUE(Bytes(unpacked->getData(), unpacked->getData() + kGrain) == rawGrain(g));
  }
  kx::TBuffer<unsigned char> data;
  EXPECT_FALSE(extent->tryReadStoredGrain(kGrain + 512, kGrain, data));  // off a border
  EXPECT_FALSE(extent->tryReadStoredGrain(kGrain, kGrain / 2, data));    // other grain size
  EXPECT_FALSE(extent->tryReadStoredGrain(12 * kGrain, kGrain, data));   // past the line
  EXPECT_FALSE(open(test::makeZeroedSparseImage(raw_, {}).bytes)->tryReadStoredGrain(kGrain, kGrain, data));
}

// Damage to grain 2 of each layout: its read fails with the file named,
// grains 1 and 3 still read.
TEST_F(SparseExtentTest, DamagedGrainFailsAlone) {
  const test::CForeignImage stream = test::makeStreamOptimizedImage(raw_);
  const test::CForeignImage plain = test::makeZeroedSparseImage(raw_, {});
  const size_t grain = stream.grainSectors[2] * 512;
  const size_t entry = stream.tableSectors[0] * 512 + 2 * 4;
  const size_t plainEntry = plain.tableSectors[0] * 512 + 2 * 4;
  const struct {
    const char* name;
    bool compressed;
    std::function<void(Bytes&)> damage;
    bool headerDamaged;  // else only the deflate data
  } cases[] = {
      {"address of grain 3", true, [&](Bytes& b) { test::putLE(b, grain, 3 * 128, 8); }, true},
      {"address beyond the extent", true, [&](Bytes& b) { test::putLE(b, grain, ~uint64_t{0}, 8); }, true},
      {"size 0: a marker", true, [&](Bytes& b) { test::putLE(b, grain + 8, 0, 4); }, true},
      {"size beyond any grain", true, [&](Bytes& b) { test::putLE(b, grain + 8, 0x7FFFFFF0, 4); }, true},
      {"size beyond the file", true, [&](Bytes& b) { test::putLE(b, grain + 8, b.size() - grain, 4); }, true},
      {"deflate data changed", true, [&](Bytes& b) { b[grain + 40] ^= 0x10; }, false},
      {"deflate data cut", true, [&](Bytes& b) { test::putLE(b, grain + 8, 100, 4); }, false},
      {"entry in the head", true, [&](Bytes& b) { test::putLE(b, entry, 3, 4); }, true},
      {"entry beyond the file", true, [&](Bytes& b) { test::putLE(b, entry, 0xFFFFFFF0, 4); }, true},
      {"entry at a table", true, [&](Bytes& b) { test::putLE(b, entry, stream.tableSectors[0], 4); }, true},
      {"plain entry in the head", false, [&](Bytes& b) { test::putLE(b, plainEntry, 2, 4); }, true},
      {"plain entry beyond the file", false, [&](Bytes& b) { test::putLE(b, plainEntry, 0xFFFFFFF0, 4); }, true},
      {"plain entry at the last sector", false,
       [&](Bytes& b) { test::putLE(b, plainEntry, b.size() / 512 - 1, 4); }, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = c.compressed ? stream.bytes : plain.bytes;
    c.damage(bytes);
    auto extent = open(bytes);
    for (int attempt = 0; attempt < 2; ++attempt) {
      const kx::CIOError error = test::caught([&] { readGrain(*extent, 2); }, kx::CIOError(0, ""));
      EXPECT_EQ(error.getCode(), 5) << error.what();
      EXPECT_EQ(error.getProps().get("uri"), kURI.toString(true));
      EXPECT_TRUE(readGrain(*extent, 1) == rawGrain(1));
      EXPECT_TRUE(readGrain(*extent, 3) == rawGrain(3));
    }
    if (!c.compressed) continue;
    // A grain that doesn't unpack is written, as far as anyone can tell.
    EXPECT_EQ(state(*extent, 2, true), State::Stored);
    kx::TBuffer<unsigned char> data;
    if (c.headerDamaged) {
      EXPECT_EQ(test::ioErrorCode([&] { extent->tryReadStoredGrain(2 * kGrain, kGrain, data); }), 5);
    } else {
      EXPECT_TRUE(extent->tryReadStoredGrain(2 * kGrain, kGrain, data));
    }
  }
}

TEST_F(SparseExtentTest, ImpossibleHeaderIsRefused) {
  const Bytes good = test::makeStreamOptimizedImage(raw_).bytes;
  const auto field = [](size_t at, uint64_t value, int width) {
    return [=](Bytes& b) { test::putLE(b, at, value, width); };
  };
  const struct {
    const char* name;
    std::function<void(Bytes&)> damage;
    int code;
    int64_t lineSectors;
  } cases[] = {
      {"grain size 0", field(20, 0, 8), 5, -1},
      {"grain size 32 MiB and a sector", field(20, 65537, 8), 5, -1},
      {"grain size all ones", field(20, ~uint64_t{0}, 8), 5, -1},
      {"no table entries", field(44, 0, 4), 5, -1},
      {"4097 table entries", field(44, 4097, 4), 5, -1},
      {"capacity beyond any file", field(12, uint64_t{1} << 62, 8), 5, -1},
      {"capacity below the extent line", field(12, 100, 8), 5, -1},
      {"extent line above the capacity", [](Bytes&) {}, 5, 1 << 20},
      {"version 0", field(4, 0, 4), 6, -1},
      {"version 4", field(4, 4, 4), 6, -1},
      {"unknown magic", field(0, 0x12345678, 4), 5, -1},
      {"check bytes of an ASCII transfer", field(73, 0x0A0D0A, 4), 5, -1},
      {"encrypted", [](Bytes& b) { test::putLE(b, 0, 0x05644B45, 4), test::putLE(b, 79, 1, 2); }, 13, -1},
      {"shorter than a header", [](Bytes& b) { b.resize(300); }, 5, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = good;
    c.damage(bytes);
    const kx::CIOError error = test::caught([&] { open(bytes, c.lineSectors); }, kx::CIOError(0, ""));
    EXPECT_EQ(error.getCode(), c.code) << error.what();
    EXPECT_EQ(error.getProps().get("uri"), kURI.toString(true));
  }
}

// One unpacker serves all extents of a chain: a grain it holds for one extent
// is never taken for the same grain of another, nor of a later extent at the
// address of one that went.
TEST_F(SparseExtentTest, SharedUnpackerKeepsExtentsApart) {
  Bytes other = raw_;
  std::reverse(other.begin(), other.end());
  const Bytes a = test::makeStreamOptimizedImage(raw_).bytes, b = test::makeStreamOptimizedImage(other).bytes;
  const kx::CURI uriB{kx::String("file:///vms/other.vmdk")};
  fs_->setFileData(uriB, b.data(), b.size());
  auto first = open(a);
  auto second = kx::create<zarn::CVMDKForeignSparseExtent>(fs_.get(), uriB, sectors(), 0, unpacker_.get());
  const auto otherGrain = [&](int64_t g) {
    return Bytes(other.begin() + g * kGrain, other.begin() + (g + 1) * kGrain);
  };
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(readGrain(*first, 2) == rawGrain(2));
    EXPECT_TRUE(readGrain(*second, 2) == otherGrain(2));
  }
  for (int round = 0; round < 8; ++round) {
    first = nullptr;
    first = kx::create<zarn::CVMDKForeignSparseExtent>(fs_.get(), round % 2 ? kURI : uriB, sectors(), 0,
                                                       unpacker_.get());
    EXPECT_TRUE(readGrain(*first, 3) == (round % 2 ? rawGrain(3) : otherGrain(3))) << round;
  }
}

// A compressed extent with no usable directory is read from its scan: the
// grains before the cut, zeros behind.
TEST_F(SparseExtentTest, CutStreamReadsWhatItHolds) {
  const test::CForeignImage image = test::makeStreamOptimizedImage(raw_);
  const size_t cut = image.grainSectors[7] * 512 + 20;  // in the deflate data of grain 7
  test::CLogCapture log;
  auto extent = open(Bytes(image.bytes.begin(), image.bytes.begin() + cut));
  EXPECT_EQ(extent->getGrainMap().getSource(), zarn::CVMDKForeignGrainMap::Source::MarkerScan);
  for (int64_t g = 0; g < 13; ++g) {
    EXPECT_TRUE(readGrain(*extent, g) == (g < 7 ? rawGrain(g) : Bytes(rawGrain(g).size(), 0))) << g;
  }
}

}  // namespace
