// The contract that both deflate wrappers share, run against each engine at
// several levels, and across engines.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "dfm/miniz_compressor.h"
#include "dfz/zlib_compressor.h"
#include "kx/error.h"
#include "tests/support/caught_error.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Factory = kx::P<kx::ISimpleCompressor> (*)(int level);

constexpr int kSectorBytes = 512;

template <class T>
kx::P<kx::ISimpleCompressor> make(int level) {
  return kx::create<T>(level);
}
const Factory kZLib = &make<dfz::CZLibCompressor>;
const Factory kMiniZ = &make<dfm::CMiniZCompressor>;

// Text-like, zero and random stretches, so every engine path gets exercised;
// all random when `incompressible`.
Bytes makeData(size_t size, uint32_t seed, bool incompressible = false) {
  std::mt19937 rng(seed);
  static const char kWords[] = "grain table directory sector extent descriptor ";
  Bytes out(size);
  for (size_t i = 0; i < size; ++i) {
    const size_t kind = incompressible ? 2 : (i / 4096) % 3;
    out[i] = kind == 0   ? static_cast<unsigned char>(kWords[(i * 7 + i / 97) % (sizeof(kWords) - 1)])
             : kind == 1 ? 0
                         : static_cast<unsigned char>(rng());
  }
  return out;
}

Bytes compress(kx::ISimpleCompressor& c, const Bytes& in) {
  Bytes out(c.getCompressedSizeUpperBound(int(in.size())));
  const int size = c.compressSingleStep(in.data(), int(in.size()), out.data(), int(out.size()));
  EXPECT_GT(size, 0);
  out.resize(size > 0 ? size : 0);
  return out;
}

int damagedCode(kx::ISimpleCompressor& c, const Bytes& in, int capacity) {
  Bytes out(capacity);
  return test::ioErrorCode([&] { c.decompressSingleStep(in.data(), int(in.size()), out.data(), capacity); });
}

// Level -1 is the default, 6; the engines differ in their highest level.
TEST(CompressorTest, LevelsAndDescription) {
  EXPECT_EQ(kZLib(-1)->getInternalDesc() + " " + kMiniZ(-1)->getInternalDesc() + " " +
                kMiniZ(12)->getInternalDesc(),
            "zlib-6 miniz-6 miniz-12");
  for (int level : {-2, 10}) EXPECT_THROW(kZLib(level), kx::CInvalidArgError) << level;
  for (int level : {-2, 13}) EXPECT_THROW(kMiniZ(level), kx::CInvalidArgError) << level;
}

struct EngineCase {
  const char* name;
  Factory make, other;
  int level;
};

class SingleStepTest : public ::testing::TestWithParam<EngineCase> {
 protected:
  kx::P<kx::ISimpleCompressor> c_ = GetParam().make(GetParam().level);
  kx::P<kx::ISimpleCompressor> other_ = GetParam().other(GetParam().level);
};

// Incompressible input must fit the bound too, also across stored-block
// boundaries; zero padding up to the next sector follows the stream.
TEST_P(SingleStepTest, RoundTripsThroughBothEnginesWithSectorPadding) {
  for (bool incompressible : {false, true}) {
    for (size_t size : {0, 1, 511, 4095, 65536, 65537, 131072, 200000}) {
      SCOPED_TRACE("size " + std::to_string(size) + (incompressible ? " random" : " mixed"));
      const Bytes plain = makeData(size, uint32_t(size), incompressible);
      Bytes packed = compress(*c_, plain);
      ASSERT_LE(int(packed.size()), c_->getCompressedSizeUpperBound(int(size)));
      packed.resize((packed.size() / kSectorBytes + 2) * kSectorBytes, 0);
      for (kx::ISimpleCompressor* reader : {c_.get(), other_.get()}) {
        Bytes back(size + 100, 0xEE);
        ASSERT_EQ(
            reader->decompressSingleStep(packed.data(), int(packed.size()), back.data(), int(back.size())),
            int(size));
        back.resize(size);
        EXPECT_TRUE(back == plain);
      }
    }
  }
}

TEST_P(SingleStepTest, TooSmallTargetGivesMinusOneAndLeavesNoState) {
  const Bytes plain = makeData(65536, 7);
  const Bytes packed = compress(*c_, plain);
  Bytes out(c_->getCompressedSizeUpperBound(int(plain.size())));
  for (int capacity : {0, 1, int(packed.size()) / 2, int(packed.size()) - 1}) {
    EXPECT_EQ(c_->compressSingleStep(plain.data(), int(plain.size()), out.data(), capacity), -1) << capacity;
  }
  // zlib needs no slack: a target of exactly the output's size is enough.
  if (GetParam().make == kZLib) {
    EXPECT_EQ(c_->compressSingleStep(plain.data(), int(plain.size()), out.data(), int(packed.size())),
              int(packed.size()));
  }
  ASSERT_EQ(c_->compressSingleStep(plain.data(), int(plain.size()), out.data(), int(out.size())),
            int(packed.size()));
  out.resize(packed.size());
  EXPECT_TRUE(out == packed);
}

TEST_P(SingleStepTest, DamagedOversizedOrNegativeSizedInputIsRefused) {
  const Bytes plain = makeData(20000, 3);
  const Bytes packed = compress(*c_, plain);
  const int capacity = int(plain.size());
  EXPECT_EQ(damagedCode(*c_, packed, capacity - 1), kx::IOERR_DAMAGED_DATA) << "output too large";
  std::vector<Bytes> bad = {Bytes(), Bytes(1024, 0), packed, packed};
  bad[2].back() ^= 0x01;  // last byte of the Adler-32
  bad[3][0] = 0x79;       // CM 9 is no deflate
  for (size_t cut : {size_t{1}, size_t{2}, packed.size() / 2, packed.size() - 1}) {
    bad.emplace_back(packed.begin(), packed.begin() + cut);
  }
  for (size_t i = 0; i < bad.size(); ++i) {
    EXPECT_EQ(damagedCode(*c_, bad[i], capacity), kx::IOERR_DAMAGED_DATA) << "case " << i;
  }
  // After all these the object still works.
  Bytes back(plain.size());
  EXPECT_EQ(c_->decompressSingleStep(packed.data(), int(packed.size()), back.data(), capacity), capacity);
  EXPECT_THROW(c_->compressSingleStep(back.data(), -1, back.data(), 64), kx::CInvalidArgError);
  EXPECT_THROW(c_->compressSingleStep(back.data(), 1, back.data(), -1), kx::CInvalidArgError);
  EXPECT_THROW(c_->decompressSingleStep(back.data(), -1, back.data(), 64), kx::CInvalidArgError);
  EXPECT_THROW(c_->getCompressedSizeUpperBound(-1), kx::CInvalidArgError);
}

INSTANTIATE_TEST_SUITE_P(Engines, SingleStepTest,
                         ::testing::Values(EngineCase{"zlib0", kZLib, kMiniZ, 0},
                                           EngineCase{"zlib6", kZLib, kMiniZ, 6},
                                           EngineCase{"miniz0", kMiniZ, kZLib, 0},
                                           EngineCase{"miniz6", kMiniZ, kZLib, 6}),
                         [](const ::testing::TestParamInfo<EngineCase>& info) { return info.param.name; });

}  // namespace
