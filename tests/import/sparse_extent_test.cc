// Foreign sparse extents: every layout reads as the bytes it was made from,
// with its zero grains told apart; a damaged grain fails its own read and no
// other; a header that can't be is refused with the file named.
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

namespace {

using Bytes = std::vector<unsigned char>;
using State = zarn::VMDKForeignGrainState;
constexpr int kGrain = 65536;
const kx::CURI kURI{kx::String("file:///vms/disk.vmdk")};

class SparseExtentTest : public ::testing::Test {
 protected:
  kx::P<zarn::CVMDKForeignSparseExtent> open(const Bytes& bytes, int64_t lineSectors = 12 * 128 + 1,
                                              const kx::CURI& uri = kURI) {
    fs_->setFileData(uri, bytes.data(), bytes.size());
    return kx::create<zarn::CVMDKForeignSparseExtent>(fs_.get(), uri, lineSectors, 0, unpacker_.get());
  }
  static Bytes grainOf(const Bytes& from, int64_t g) {
    return Bytes(from.begin() + g * kGrain, from.begin() + std::min<size_t>(from.size(), (g + 1) * kGrain));
  }
  Bytes readGrain(zarn::CVMDKForeignSparseExtent& extent, int64_t g) {
    Bytes out(grainOf(raw_, g).size());
    extent.read(g * kGrain, out.data(), static_cast<int>(out.size()));
    return out;
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::P<zarn::CVMDKForeignGrainUnpacker> unpacker_ = kx::create<zarn::CVMDKForeignGrainUnpacker>();
  // 12 grains and a sector: zeros in grains 0, 4, 5, 8 and the last one.
  const Bytes raw_ = [] {
    Bytes raw = test::mixedData(12 * kGrain + 512);
    std::fill(raw.begin() + 5 * kGrain, raw.begin() + 6 * kGrain, 0);
    return raw;
  }();
};

// States of grains 0 to 5 to a plain and an exact look: Absent, Zero, Stored.
TEST_F(SparseExtentTest, EveryLayoutReadsAsMade) {
  test::CImageOptions noFooter, head, zerosStored, zeroed;
  noFooter.footer = false;
  head.directoryAtEnd = head.footer = false;
  zerosStored.rewrites = {{5, Bytes(kGrain, 0)}};
  zeroed.zeroed = {1, 5};
  Bytes withoutGrain1 = raw_;
  std::fill(withoutGrain1.begin() + kGrain, withoutGrain1.begin() + 2 * kGrain, 0);
  const struct {
    const char* name;
    Bytes bytes, expected;
    const char *plain, *exact;
  } cases[] = {
      {"stream, footer", test::makeStreamOptimizedImage(raw_).bytes, raw_, "ASSSAA", "ASSSAA"},
      {"stream, scanned", test::makeStreamOptimizedImage(raw_, noFooter).bytes, raw_, "ASSSAA", "ASSSAA"},
      {"stream, tables in the head", test::makeStreamOptimizedImage(raw_, head).bytes, raw_, "ASSSAA", "ASSSAA"},
      {"stream, a grain of zeros stored", test::makeStreamOptimizedImage(raw_, zerosStored).bytes, raw_, "ASSSAS",
       "ASSSAZ"},
      {"plain, zeroed grains", test::makeZeroedSparseImage(raw_, zeroed).bytes, withoutGrain1, "AZSSAZ", "AZSSAZ"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::CLogCapture quiet;
    auto extent = open(c.bytes);
    Bytes all(raw_.size());
    extent->read(0, all.data(), static_cast<int>(all.size()));
    EXPECT_TRUE(all == c.expected);
    Bytes piece(70000);  // across two grain borders, after a read of the grains behind
    extent->read(kGrain - 100, piece.data(), 70000);
    EXPECT_TRUE(std::equal(piece.begin(), piece.end(), c.expected.begin() + kGrain - 100));
    for (bool exact : {false, true}) {
      std::string states;
      for (int64_t g = 0; g < 6; ++g) {
        int64_t run = 0;
        states += "AZS"[static_cast<int>(extent->getState(g * kGrain + 100, kGrain, exact, run))];
        EXPECT_EQ(run, kGrain - 100);
      }
      EXPECT_EQ(states, exact ? c.exact : c.plain);
    }
  }
}

// Damage to grain 2: its read fails, now and again, with the file named;
// grains 1 and 3 still read. A compressed grain that doesn't unpack counts
// as stored, and its stored form goes out when only its data is damaged.
TEST_F(SparseExtentTest, DamagedGrainFailsAlone) {
  const test::CForeignImage stream = test::makeStreamOptimizedImage(raw_);
  const test::CForeignImage plain = test::makeZeroedSparseImage(raw_);
  const size_t grain = stream.grainSectors[2] * 512;
  const size_t entry = stream.tableSectors[0] * 512 + 8, plainEntry = plain.tableSectors[0] * 512 + 8;
  const auto set = [](size_t at, uint64_t value, int width) {
    return [=](Bytes& b) { test::putLE(b, at, value, width); };
  };
  const struct {
    const char* name;
    bool compressed;
    std::function<void(Bytes&)> damage;
    bool headerDamaged;
  } cases[] = {
      {"address of grain 3", true, set(grain, 3 * 128, 8), true},
      {"address beyond the extent", true, set(grain, ~uint64_t{0}, 8), true},
      {"size 0: a marker", true, set(grain + 8, 0, 4), true},
      {"size beyond any grain", true, set(grain + 8, 0x7FFFFFF0, 4), true},
      {"size beyond the file", true, [&](Bytes& b) { test::putLE(b, grain + 8, b.size() - grain, 4); }, true},
      {"deflate data changed", true, [&](Bytes& b) { b[grain + 40] ^= 0x10; }, false},
      {"deflate data cut", true, set(grain + 8, 100, 4), false},
      {"entry in the head", true, set(entry, 3, 4), true},
      {"entry beyond the file", true, set(entry, 0xFFFFFFF0, 4), true},
      {"entry at a table", true, set(entry, stream.tableSectors[0], 4), true},
      {"plain entry in the head", false, set(plainEntry, 2, 4), true},
      {"plain entry beyond the file", false, set(plainEntry, 0xFFFFFFF0, 4), true},
      {"plain entry at the last sector", false, [&](Bytes& b) { test::putLE(b, plainEntry, b.size() / 512 - 1, 4); },
       true},
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
      EXPECT_TRUE(readGrain(*extent, 1) == grainOf(raw_, 1));
      EXPECT_TRUE(readGrain(*extent, 3) == grainOf(raw_, 3));
    }
    if (!c.compressed) continue;
    int64_t run = 0;
    EXPECT_EQ(extent->getState(2 * kGrain, kGrain, true, run), State::Stored);
    kx::TBuffer<unsigned char> data;
    const int code = test::ioErrorCode([&] { EXPECT_TRUE(extent->tryReadStoredGrain(2 * kGrain, kGrain, data)); });
    EXPECT_EQ(code, c.headerDamaged ? 5 : 0);
  }
}

TEST_F(SparseExtentTest, ImpossibleHeaderIsRefused) {
  const Bytes good = test::makeStreamOptimizedImage(raw_).bytes;
  const auto set = [](size_t at, uint64_t value, int width) {
    return [=](Bytes& b) { test::putLE(b, at, value, width); };
  };
  const struct {
    const char* name;
    std::function<void(Bytes&)> damage;
    int code;
    int64_t lineSectors;
  } cases[] = {
      {"grain size 0", set(20, 0, 8), 5, 1537},
      {"grain size 32 MiB and a sector", set(20, 65537, 8), 5, 1537},
      {"no table entries", set(44, 0, 4), 5, 1537},
      {"4097 table entries", set(44, 4097, 4), 5, 1537},
      {"capacity beyond any file", set(12, uint64_t{1} << 62, 8), 5, 1537},
      {"extent line beyond the capacity", [](Bytes&) {}, 5, 1538},
      {"version 4", set(4, 4, 4), 6, 1537},
      {"unknown magic", set(0, 0x12345678, 4), 5, 1537},
      {"check bytes of an ASCII transfer", set(73, 0x0A0D0A, 4), 5, 1537},
      {"encrypted", [](Bytes& b) { test::putLE(b, 0, 0x05644B45, 4), test::putLE(b, 79, 1, 2); }, 13, 1537},
      {"shorter than a header", [](Bytes& b) { b.resize(300); }, 5, 1537},
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

// One unpacker serves all extents of a chain: a grain held for one extent is
// never taken for the same grain of another, nor of a later extent at the
// address of one that went.
TEST_F(SparseExtentTest, SharedUnpackerKeepsExtentsApart) {
  Bytes other = raw_;
  std::reverse(other.begin(), other.end());
  const kx::CURI otherURI{kx::String("file:///vms/other.vmdk")};
  auto first = open(test::makeStreamOptimizedImage(raw_).bytes);
  auto second = open(test::makeStreamOptimizedImage(other).bytes, 12 * 128 + 1, otherURI);
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(readGrain(*first, 2) == grainOf(raw_, 2));
    EXPECT_TRUE(readGrain(*second, 2) == grainOf(other, 2));
  }
  for (int round = 0; round < 8; ++round) {
    first = nullptr;
    first = kx::create<zarn::CVMDKForeignSparseExtent>(fs_.get(), round % 2 ? kURI : otherURI, 12 * 128 + 1, 0,
                                                       unpacker_.get());
    EXPECT_TRUE(readGrain(*first, 3) == grainOf(round % 2 ? raw_ : other, 3)) << round;
  }
}

}  // namespace
