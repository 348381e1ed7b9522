#include "zarn/sparse_extent_header.h"

#include <gtest/gtest.h>

#include <tuple>
#include <utility>
#include <vector>

#include "kx/buffer_stream.h"
#include "kx/data_stream.h"
#include "kx/error.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"

namespace {

using zarn::CVMDKSparseExtentHeader;
using Bytes = std::vector<unsigned char>;

void load(CVMDKSparseExtentHeader& header, const Bytes& bytes) {
  kx::CBufferStream stream;
  if (!bytes.empty()) stream.write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
  stream.seek(0);
  kx::CDataInStream in(stream);
  header.load(in);
  EXPECT_EQ(stream.getPosition(), 512);
}

Bytes store(CVMDKSparseExtentHeader& header) {
  kx::CBufferStream stream;
  kx::CDataOutStream out(stream);
  header.store(out);
  const auto& buffer = stream.getBuffer();
  EXPECT_EQ(buffer->getUsed(), 512u);
  return Bytes(buffer->getData(), buffer->getData() + buffer->getUsed());
}

// A sector as this library writes one for a compressed extent, with
// arbitrary bytes in the padding.
Bytes goldenSector(bool extended, size_t hashSize) {
  Bytes s(512, 0);
  test::putLE(s, 0, extended ? 0x05644B45 : 0x564D444B, 4);
  // Offset, value, width: version 3, both flags, capacity, grain size,
  // descriptor at 1 of 20 sectors, 512 entries per table, directories at 22
  // and 31, 256 sectors overhead, clean shutdown, deflate.
  const uint64_t fields[][3] = {
      {4, 3, 4},    {8, 0x00030003, 4}, {12, 0x123456789a, 8}, {20, 128, 8}, {28, 1, 8}, {36, 20, 8},
      {44, 512, 4}, {48, 22, 8},        {56, 31, 8},           {64, 256, 8}, {72, 0, 1}, {77, 1, 2}};
  for (const auto& [at, value, width] : fields) test::putLE(s, at, value, static_cast<int>(width));
  s[73] = 0x0A, s[74] = 0x20, s[75] = 0x0D, s[76] = 0x0A;
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

// Every field at its offset, the padding and key hash byte for byte; in the
// plain form, the bytes where the extended form has its fields are padding:
// no algorithm may be read from them.
TEST(SparseExtentHeaderTest, LoadReadsEveryFieldAndStoresTheSectorBack) {
  const std::pair<bool, size_t> cases[] = {{false, 0}, {true, 0}, {true, 32}, {true, 427}};
  for (const auto& [extended, hashSize] : cases) {
    SCOPED_TRACE(testing::Message() << "extended " << extended << " hash " << hashSize);
    const Bytes golden = goldenSector(extended, hashSize);
    CVMDKSparseExtentHeader h;
    load(h, golden);
    EXPECT_EQ(
        std::make_tuple(h.getVersion(), h.getFlags(), h.getCapacitySectors(), h.getGrainSizeSectors(),
                        h.getDescriptorOffsetSectors(), h.getDescriptorSizeSectors(),
                        h.getGrainTableEntryCount(), h.getRedundantGrainDirectoryOffsetSectors(),
                        h.getGrainDirectoryOffsetSectors(), h.getOverheadSectors(), h.getUncleanShutdown()),
        std::make_tuple(3u, 0x00030003u, 0x123456789aULL, 128ULL, 1ULL, 20ULL, 512u, 22ULL, 31ULL, 256ULL,
                        false));
    EXPECT_EQ(std::make_tuple(h.getEncryptionExtensionEnabled(), h.getCompressAlgorithm(),
                              h.getEncryptionAlgorithm(), h.getEncryptionKeyHashAlgorithm()),
              std::make_tuple(extended, 1, extended ? 1 : 0, extended ? 1 : 0));
    EXPECT_EQ(h.getEncryptionKeyHash().getUsed(), hashSize);
    EXPECT_EQ(h.getPadding().getUsed(), 427u - hashSize + (extended ? 0 : 6));
    EXPECT_EQ(store(h), golden);
    CVMDKSparseExtentHeader copy(h);
    EXPECT_EQ(store(copy), golden);
  }
}

TEST(SparseExtentHeaderTest, DamagedSectorsAreRefused) {
  const struct {
    bool extended;
    size_t at;
    uint64_t value;
    int width;
    const char *message, *props;
  } cases[] = {
      // "\r" lost in a text-mode transfer.
      {false, 75, 0x0A, 1, "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).",
       ""},
      {false, 0, 0xDEADBEEF, 4, "Invalid magic number in VMDK sparse header", "num: 3735928559"},
      {true, 83, 428, 2, "Invalid key hash length in VMDK sparse header", "length: 428"},
  };
  for (const auto& c : cases) {
    Bytes s = goldenSector(c.extended, 0);
    test::putLE(s, c.at, c.value, c.width);
    CVMDKSparseExtentHeader h;
    const kx::CIOError e = test::caught([&] { load(h, s); }, kx::CIOError(0, "accepted"));
    EXPECT_EQ(e.getCode(), 5);
    EXPECT_EQ(e.getMessage(), c.message);
    EXPECT_EQ(e.getProps().toString(), c.props);
  }
  // Every truncation fails too.
  const Bytes golden = goldenSector(true, 32);
  for (size_t length = 0; length < golden.size(); ++length) {
    CVMDKSparseExtentHeader h;
    EXPECT_THROW(load(h, Bytes(golden.begin(), golden.begin() + length)), kx::CError) << length;
  }
}

TEST(SparseExtentHeaderTest, FlagsDecideOnCheckBytesAndRedundantDirectory) {
  // Bit 0 clear: damaged check bytes pass, and are stored intact.
  Bytes s = goldenSector(false, 0);
  s[75] = 0x0A;
  test::putLE(s, 8, 0x00030002, 4);
  CVMDKSparseExtentHeader lax;
  load(lax, s);
  EXPECT_EQ(lax.getRedundantGrainDirectoryOffsetSectors(), 22u);
  EXPECT_EQ(test::le32(store(lax), 73), 0x0A0D200Au);
  // Bit 1 clear: the offset still in the sector counts for nothing.
  test::putLE(s, 8, 0x00030001, 4);
  s[75] = 0x0D;
  CVMDKSparseExtentHeader h;
  load(h, s);
  EXPECT_EQ(h.getRedundantGrainDirectoryOffsetSectors(), 0u);
  EXPECT_EQ(test::le64(store(h), 48), 0u);
}

}  // namespace
