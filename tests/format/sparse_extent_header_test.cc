#include "zarn/sparse_extent_header.h"

#include <gtest/gtest.h>

#include <vector>

#include "kx/data_stream.h"
#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "tests/support/file_bytes.h"

namespace {

using zarn::CVMDKSparseExtentHeader;
using Bytes = std::vector<unsigned char>;

class SparseExtentHeaderTest : public ::testing::Test {
 protected:
  kx::P<kx::IIOStream> open() {
    int flags = 0;
    return fs_->openFile(uri_, kx::IIOStream::ACCESS_READ_WRITE, flags);
  }
  void load(CVMDKSparseExtentHeader& header, const Bytes& bytes) {
    test::writeFileBytes(*fs_, uri_, bytes);
    auto stream = open();
    kx::CDataInStream in(*stream);
    header.load(in);
    EXPECT_EQ(stream->getPosition(), 512);
  }
  Bytes store(CVMDKSparseExtentHeader& header) {
    test::writeFileBytes(*fs_, uri_, {});
    {
      auto stream = open();
      kx::CDataOutStream out(*stream);
      header.store(out);
      EXPECT_EQ(stream->getPosition(), 512);
      stream->flush();
    }
    return test::readFileBytes(*fs_, uri_);
  }

  // A sector as this library writes one for a compressed extent, with
  // arbitrary bytes in the padding.
  static Bytes goldenSector(bool extended, size_t hashSize) {
    Bytes s(512, 0);
    test::putLE(s, 0, extended ? 0x05644B45 : 0x564D444B, 4);
    test::putLE(s, 4, 3, 4);
    test::putLE(s, 8, 0x00030003, 4);
    test::putLE(s, 12, 0x123456789aULL, 8);
    test::putLE(s, 20, 128, 8);
    test::putLE(s, 28, 1, 8);
    test::putLE(s, 36, 20, 8);
    test::putLE(s, 44, 512, 4);
    test::putLE(s, 48, 22, 8);
    test::putLE(s, 56, 31, 8);
    test::putLE(s, 64, 256, 8);
    s[72] = 0;
    s[73] = 0x0A, s[74] = 0x20, s[75] = 0x0D, s[76] = 0x0A;
    test::putLE(s, 77, 1, 2);
    size_t paddingStart = 79;
    if (extended) {
      test::putLE(s, 79, 1, 2);
      test::putLE(s, 81, 1, 2);
      test::putLE(s, 83, hashSize, 2);
      for (size_t i = 0; i < hashSize; ++i) s[85 + i] = static_cast<unsigned char>(0xA0 + i);
      paddingStart = 85 + hashSize;
    }
    for (size_t i = paddingStart; i < 512; ++i) s[i] = static_cast<unsigned char>(i * 7);
    return s;
  }

  kx::P<kx::IFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///header.vmdk")};
};

TEST_F(SparseExtentHeaderTest, DefaultStoresPlainMagicCheckBytesAndZeros) {
  CVMDKSparseExtentHeader header;
  const Bytes s = store(header);
  ASSERT_EQ(s.size(), 512u);
  EXPECT_EQ(Bytes(s.begin(), s.begin() + 4), (Bytes{'K', 'D', 'M', 'V'}));
  EXPECT_EQ(Bytes(s.begin() + 73, s.begin() + 77), (Bytes{0x0A, 0x20, 0x0D, 0x0A}));
  for (size_t i = 4; i < 512; ++i) {
    if (i >= 73 && i < 77) continue;
    ASSERT_EQ(s[i], 0) << "offset " << i;
  }
}

TEST_F(SparseExtentHeaderTest, LoadReadsEveryFieldAtItsOffset) {
  CVMDKSparseExtentHeader h;
  load(h, goldenSector(true, 32));
  EXPECT_EQ(h.getVersion(), 3u);
  EXPECT_EQ(h.getFlags(), 0x00030003u);
  EXPECT_EQ(h.getCapacitySectors(), 0x123456789aULL);
  EXPECT_EQ(h.getGrainSizeSectors(), 128u);
  EXPECT_EQ(h.getDescriptorOffsetSectors(), 1u);
  EXPECT_EQ(h.getDescriptorSizeSectors(), 20u);
  EXPECT_EQ(h.getGrainTableEntryCount(), 512u);
  EXPECT_EQ(h.getRedundantGrainDirectoryOffsetSectors(), 22u);
  EXPECT_EQ(h.getGrainDirectoryOffsetSectors(), 31u);
  EXPECT_EQ(h.getOverheadSectors(), 256u);
  EXPECT_FALSE(h.getUncleanShutdown());
  EXPECT_EQ(h.getCompressAlgorithm(), 1);
  EXPECT_TRUE(h.getEncryptionExtensionEnabled());
  EXPECT_EQ(h.getEncryptionAlgorithm(), 1);
  EXPECT_EQ(h.getEncryptionKeyHashAlgorithm(), 1);
  ASSERT_EQ(h.getEncryptionKeyHash().getUsed(), 32u);
  EXPECT_EQ(h.getEncryptionKeyHash().getData()[31], 0xA0 + 31);
  EXPECT_EQ(h.getPadding().getUsed(), 427u - 32u);
}

TEST_F(SparseExtentHeaderTest, LoadThenStoreIsByteExact) {
  struct Case {
    bool extended;
    size_t hashSize;
  } cases[] = {{false, 0}, {true, 0}, {true, 32}, {true, 427}};
  for (const auto& c : cases) {
    const Bytes golden = goldenSector(c.extended, c.hashSize);
    CVMDKSparseExtentHeader h;
    load(h, golden);
    EXPECT_EQ(store(h), golden) << "extended " << c.extended << " hash " << c.hashSize;
    CVMDKSparseExtentHeader copy(h);
    EXPECT_EQ(store(copy), golden);
  }
}

TEST_F(SparseExtentHeaderTest, PlainMagicCarriesBytesBehindTheFieldsAsPadding) {
  Bytes golden = goldenSector(false, 0);
  golden[79] = 1;  // would be an algorithm in the extended form
  CVMDKSparseExtentHeader h;
  load(h, golden);
  EXPECT_FALSE(h.getEncryptionExtensionEnabled());
  EXPECT_EQ(h.getEncryptionAlgorithm(), 0);
  EXPECT_EQ(store(h), golden);
}

TEST_F(SparseExtentHeaderTest, CheckBytesAreComparedOnlyWhenFlagged) {
  Bytes s = goldenSector(false, 0);
  s[75] = 0x0A;  // "\r" lost in a text-mode transfer
  CVMDKSparseExtentHeader h;
  try {
    load(h, s);
    FAIL() << "damaged check bytes were accepted";
  } catch (const kx::CIOError& e) {
    EXPECT_EQ(e.getCode(), 5);
    EXPECT_EQ(e.getMessage(), "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).");
    EXPECT_TRUE(e.getProps().isEmpty());
  }
  test::putLE(s, 8, 0x00030002, 4);  // bit 0 clear
  CVMDKSparseExtentHeader lax;
  load(lax, s);
  const Bytes out = store(lax);
  EXPECT_EQ(Bytes(out.begin() + 73, out.begin() + 77), (Bytes{0x0A, 0x20, 0x0D, 0x0A}));
}

TEST_F(SparseExtentHeaderTest, RedundantDirectoryOffsetNeedsItsFlag) {
  Bytes s = goldenSector(false, 0);
  test::putLE(s, 8, 0x00030001, 4);  // bit 1 clear, offset 22 still in the file
  CVMDKSparseExtentHeader h;
  load(h, s);
  EXPECT_EQ(h.getRedundantGrainDirectoryOffsetSectors(), 0u);
  EXPECT_EQ(test::le64(store(h), 48), 0u);
}

TEST_F(SparseExtentHeaderTest, UnknownMagicIsDamagedData) {
  Bytes s = goldenSector(false, 0);
  test::putLE(s, 0, 0xDEADBEEF, 4);
  CVMDKSparseExtentHeader h;
  try {
    load(h, s);
    FAIL();
  } catch (const kx::CIOError& e) {
    EXPECT_EQ(e.getCode(), 5);
    EXPECT_EQ(e.getMessage(), "Invalid magic number in VMDK sparse header");
    EXPECT_EQ(e.getProps().get("num"), "3735928559");
  }
}

TEST_F(SparseExtentHeaderTest, KeyHashTooLongForTheSectorIsDamagedData) {
  Bytes s = goldenSector(true, 0);
  test::putLE(s, 83, 428, 2);
  CVMDKSparseExtentHeader h;
  try {
    load(h, s);
    FAIL();
  } catch (const kx::CIOError& e) {
    EXPECT_EQ(e.getCode(), 5);
  }
}

TEST_F(SparseExtentHeaderTest, EveryTruncationFailsCleanly) {
  const Bytes golden = goldenSector(true, 32);
  for (size_t length = 0; length < golden.size(); ++length) {
    CVMDKSparseExtentHeader h;
    test::writeFileBytes(*fs_, uri_, Bytes(golden.begin(), golden.begin() + length));
    auto stream = open();
    kx::CDataInStream in(*stream);
    EXPECT_THROW(h.load(in), kx::CError) << "length " << length;
  }
}

TEST_F(SparseExtentHeaderTest, SwitchingFormsKeepsTheSectorSize) {
  CVMDKSparseExtentHeader h;
  kx::TBuffer<unsigned char> hash(32);
  hash.fill(0x5A);
  h.setEncryptionExtensionEnabled(true);
  h.setEncryptionAlgorthm(1);
  h.setEncryptionKeyHashAlgorthm(1);
  h.setEncryptionKeyHash(hash);
  Bytes s = store(h);
  ASSERT_EQ(s.size(), 512u);
  EXPECT_EQ(test::le32(s, 0), 0x05644B45u);
  EXPECT_EQ(test::le16(s, 83), 32);
  EXPECT_EQ(s[85 + 31], 0x5A);
  EXPECT_EQ(s[85 + 32], 0);
  h.setEncryptionExtensionEnabled(false);
  s = store(h);
  ASSERT_EQ(s.size(), 512u);
  EXPECT_EQ(test::le32(s, 0), 0x564D444Bu);
}

}  // namespace
