#include "zarn/data_preparer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kx/error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"

namespace {

using Bytes = std::vector<unsigned char>;

TEST(DataPreparerTest, PreparedGrainsHaveHeaderPaddingAndTheirBound) {
  zarn::CVMDKDataPreparer preparer(128, true, -1);
  const Bytes text = test::textGrain(65536, 2), noise = test::noiseGrain(65536, 2);
  const Bytes half(text.begin(), text.begin() + 32768);
  for (const Bytes* grain : {&text, &noise, &half}) {
    kx::TBuffer<unsigned char> source, aux, plain;
    source.assign(grain->data(), grain->size());
    const Bytes prepared = [&] {
      auto out = preparer.prepareGrainData(&source, 3, &aux);
      return Bytes(out->getData(), out->getData() + out->getUsed());
    }();
    const size_t compressedSize = test::le32(prepared, 8);
    EXPECT_EQ(test::le64(prepared, 0), 3u * 128);
    EXPECT_EQ(prepared.size(), (12 + compressedSize + 511) / 512 * 512);
    EXPECT_LE(prepared.size(), static_cast<size_t>(preparer.getWorstCaseGrainSizeSectors()) * 512);
    EXPECT_TRUE(std::all_of(prepared.begin() + 12 + compressedSize, prepared.end(), [](auto b) { return b == 0; }));

    // Padded (from a clear extent) and exact (from an encrypted one) forms
    // unpack alike, to a whole grain with zeros behind a short source.
    Bytes want = *grain;
    want.resize(65536, 0);
    for (size_t length : {prepared.size(), 12 + compressedSize}) {
      source.assign(prepared.data(), length);
      auto out = preparer.unprepareGrainData(&source, &plain);
      EXPECT_EQ(Bytes(out->getData(), out->getData() + out->getUsed()), want);
    }
    source.assign(prepared.data(), prepared.size());
    preparer.patchGrainIndexInPreparedGrainData(source, 9);
    EXPECT_EQ(test::le64(Bytes(source.getData(), source.getData() + 8), 0), 9u * 128);
    EXPECT_TRUE(std::equal(prepared.begin() + 8, prepared.end(), source.getData() + 8));
  }
}

TEST(DataPreparerTest, RefusesBadBuffers) {
  zarn::CVMDKDataPreparer preparer(1, true, -1);
  kx::TBuffer<unsigned char> source(513), aux;
  const auto message = [&](kx::TBuffer<unsigned char>* s, kx::TBuffer<unsigned char>* a) {
    try {
      preparer.prepareGrainData(s, 0, a);
    } catch (const kx::CInvalidArgError& e) {
      return e.getMessage().toUTF8();
    }
    return std::string();
  };
  EXPECT_EQ(message(nullptr, &aux), "pSourceBuffer must not be NULL");
  EXPECT_EQ(message(&source, nullptr), "pAuxBuffer must not be NULL");
  EXPECT_EQ(message(&source, &aux), "source buffer is bigger than grain size (513).");
}

}  // namespace
