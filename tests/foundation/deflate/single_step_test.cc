// The contract that both deflate wrappers share, run against each engine at
// several levels, and across engines.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "dfm/miniz_compressor.h"
#include "dfz/zlib_compressor.h"
#include "kx/error.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Factory = std::function<kx::P<kx::ISimpleCompressor>(int level)>;

constexpr int kSectorBytes = 512;

const Factory kZLib = [](int level) {
  return kx::P<kx::ISimpleCompressor>(kx::create<dfz::CZLibCompressor>(level));
};
const Factory kMiniZ = [](int level) {
  return kx::P<kx::ISimpleCompressor>(kx::create<dfm::CMiniZCompressor>(level));
};

// Text-like, zero and random stretches, so every engine path gets exercised.
Bytes mixedData(size_t size, uint32_t seed) {
  std::mt19937 rng(seed);
  static const char kWords[] = "grain table directory sector extent descriptor ";
  Bytes out(size);
  for (size_t i = 0; i < size; ++i) {
    switch ((i / 4096) % 3) {
      case 0:
        out[i] = static_cast<unsigned char>(kWords[(i * 7 + i / 97) % (sizeof(kWords) - 1)]);
        break;
      case 1:
        out[i] = 0;
        break;
      default:
        out[i] = static_cast<unsigned char>(rng());
        break;
    }
  }
  return out;
}

Bytes randomData(size_t size, uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes out(size);
  for (auto& b : out) b = static_cast<unsigned char>(rng());
  return out;
}

Bytes compress(kx::ISimpleCompressor& c, const Bytes& in) {
  Bytes out(c.getCompressedSizeUpperBound(int(in.size())));
  const int size = c.compressSingleStep(in.data(), int(in.size()), out.data(), int(out.size()));
  EXPECT_GT(size, 0);
  out.resize(size > 0 ? size : 0);
  return out;
}

int expectDamaged(kx::ISimpleCompressor& c, const Bytes& in, int capacity) {
  Bytes out(capacity);
  try {
    c.decompressSingleStep(in.data(), int(in.size()), out.data(), capacity);
  } catch (const kx::CIOError& e) {
    return e.getCode();
  }
  return 0;
}

struct EngineCase {
  const char* name;
  Factory make;
  Factory other;
  int level;
};

class SingleStepTest : public ::testing::TestWithParam<EngineCase> {
 protected:
  kx::P<kx::ISimpleCompressor> c_ = GetParam().make(GetParam().level);
  kx::P<kx::ISimpleCompressor> other_ = GetParam().other(GetParam().level);
};

TEST_P(SingleStepTest, RoundTripsThroughBothEnginesWithSectorPadding) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{4095}, size_t{65536}, size_t{200000}}) {
    SCOPED_TRACE("size " + std::to_string(size));
    const Bytes plain = mixedData(size, uint32_t(size));
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

TEST_P(SingleStepTest, IncompressibleInputStaysWithinTheBound) {
  for (int size : {1, 511, 65536, 65537, 131072}) {
    const Bytes plain = randomData(size, size);
    Bytes out(c_->getCompressedSizeUpperBound(size));
    const int packed = c_->compressSingleStep(plain.data(), size, out.data(), int(out.size()));
    EXPECT_GT(packed, 0) << size;
    EXPECT_LE(packed, int(out.size())) << size;
  }
}

TEST_P(SingleStepTest, TooSmallTargetGivesMinusOneAndLeavesNoState) {
  const Bytes plain = mixedData(65536, 7);
  const Bytes packed = compress(*c_, plain);
  Bytes out(c_->getCompressedSizeUpperBound(int(plain.size())));
  for (int capacity : {0, 1, int(packed.size()) / 2, int(packed.size()) - 1}) {
    EXPECT_EQ(c_->compressSingleStep(plain.data(), int(plain.size()), out.data(), capacity), -1) << capacity;
  }
  ASSERT_EQ(c_->compressSingleStep(plain.data(), int(plain.size()), out.data(), int(out.size())),
            int(packed.size()));
  out.resize(packed.size());
  EXPECT_TRUE(out == packed);
}

TEST_P(SingleStepTest, DamagedOrOversizedInputIsCode5) {
  const Bytes plain = mixedData(20000, 3);
  const Bytes packed = compress(*c_, plain);
  const int capacity = int(plain.size());
  EXPECT_EQ(expectDamaged(*c_, packed, capacity - 1), kx::IOERR_DAMAGED_DATA) << "output too large";
  EXPECT_EQ(expectDamaged(*c_, Bytes(), capacity), kx::IOERR_DAMAGED_DATA) << "empty";
  EXPECT_EQ(expectDamaged(*c_, Bytes(1024, 0), capacity), kx::IOERR_DAMAGED_DATA) << "zeros";
  for (size_t cut : {size_t{1}, size_t{2}, packed.size() / 2, packed.size() - 1}) {
    EXPECT_EQ(expectDamaged(*c_, Bytes(packed.begin(), packed.begin() + cut), capacity),
              kx::IOERR_DAMAGED_DATA)
        << "cut at " << cut;
  }
  Bytes badCheck = packed;
  badCheck.back() ^= 0x01;  // last byte of the Adler-32
  EXPECT_EQ(expectDamaged(*c_, badCheck, capacity), kx::IOERR_DAMAGED_DATA) << "checksum";
  Bytes badHeader = packed;
  badHeader[0] = 0x79;  // CM 9 is no deflate
  EXPECT_EQ(expectDamaged(*c_, badHeader, capacity), kx::IOERR_DAMAGED_DATA) << "header";
  // After all these the object still works.
  Bytes back(plain.size());
  EXPECT_EQ(c_->decompressSingleStep(packed.data(), int(packed.size()), back.data(), capacity), capacity);
}

TEST_P(SingleStepTest, NegativeSizesAreInvalidArguments) {
  unsigned char buffer[64] = {};
  EXPECT_THROW(c_->compressSingleStep(buffer, -1, buffer, 64), kx::CInvalidArgError);
  EXPECT_THROW(c_->compressSingleStep(buffer, 1, buffer, -1), kx::CInvalidArgError);
  EXPECT_THROW(c_->decompressSingleStep(buffer, -1, buffer, 64), kx::CInvalidArgError);
  EXPECT_THROW(c_->getCompressedSizeUpperBound(-1), kx::CInvalidArgError);
}

INSTANTIATE_TEST_SUITE_P(
    Engines, SingleStepTest,
    ::testing::Values(EngineCase{"zlib0", kZLib, kMiniZ, 0}, EngineCase{"zlib1", kZLib, kMiniZ, 1},
                      EngineCase{"zlib6", kZLib, kMiniZ, 6}, EngineCase{"miniz0", kMiniZ, kZLib, 0},
                      EngineCase{"miniz1", kMiniZ, kZLib, 1}, EngineCase{"miniz6", kMiniZ, kZLib, 6}),
    [](const ::testing::TestParamInfo<EngineCase>& info) { return info.param.name; });

}  // namespace
