#include "zarn/empty_extent_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/log_capture.h"
#include "zarn/descriptor.h"
#include "zarn/descriptor_accessor.h"
#include "zarn/low_level_file_stream.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Expected files are built from sector numbers written out by hand, so that
// they check the arithmetic of the writer instead of repeating it.
Bytes header(bool compressed, uint64_t capacity, uint64_t grainSize, uint64_t redundant, uint64_t primary,
             uint64_t overhead, const Bytes& keyHash = Bytes()) {
  Bytes s(512, 0);
  // Offset, value, width: magic, version, flags, capacity, grain size, entries
  // per table, both directories, overhead, check bytes "\n \r\n", compression.
  const uint64_t magic = keyHash.empty() ? 0x564D444B : 0x05644B45, version = compressed ? 3 : 1;
  const uint64_t flags = compressed ? 0x00030003 : 3, compression = compressed ? 1 : 0;
  const uint64_t fields[][3] = {{0, magic, 4},       {4, version, 4},     {8, flags, 4},
                                {12, capacity, 8},   {20, grainSize, 8},  {44, 512, 4},
                                {48, redundant, 8},  {56, primary, 8},    {64, overhead, 8},
                                {73, 0x0A0D200A, 4}, {77, compression, 2}};
  for (const auto& [at, value, width] : fields) test::putLE(s, at, value, static_cast<int>(width));
  if (!keyHash.empty()) {
    s[79] = 1, s[81] = 1;  // AES-256-CBC, SHA-256
    test::putLE(s, 83, keyHash.size(), 2);
    std::copy(keyHash.begin(), keyHash.end(), s.begin() + 85);
  }
  return s;
}

void putSector(Bytes& file, int64_t sector, const Bytes& bytes) {
  std::copy(bytes.begin(), bytes.end(), file.begin() + sector * 512);
}

void putWords(Bytes& file, int64_t sector, int64_t first, int64_t count, int64_t stride) {
  for (int64_t i = 0; i < count; ++i) test::putLE(file, sector * 512 + i * 4, first + i * stride, 4);
}

// Keeps a failure's output short: the files can be megabytes.
std::string difference(const Bytes& got, const Bytes& want) {
  if (got.size() != want.size()) return "length " + std::to_string(got.size());
  const size_t at = std::mismatch(got.begin(), got.end(), want.begin()).first - got.begin();
  return at == got.size() ? "" : "byte " + std::to_string(at);
}

class EmptyExtentFileTest : public ::testing::Test {
 protected:
  Bytes create(bool compressed, int64_t grainCount, int64_t grainSizeSectors = 128,
               zarn::CVMDKDescriptor* descriptor = nullptr, int64_t descriptorSectors = 0,
               const kx::TBuffer<unsigned char>& keyHash = kx::TBuffer<unsigned char>()) {
    fs_->deleteFile(uri_, true);
    zarn::createEmptyVMDKSparseExtentFile(fs_.get(), uri_, compressed, grainCount, grainSizeSectors, zeros_,
                                          descriptor, descriptorSectors, keyHash);
    return test::readFileBytes(*fs_, uri_);
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///vms/disk.vmdk")};
  kx::TBuffer<unsigned char> zeros_{65536};
};

TEST_F(EmptyExtentFileTest, PlainLayoutsAreExact) {
  // The file ends where the head ends, so its length is the overhead too.
  struct Case {
    int64_t grains, grainSize, sectors;
    int64_t redundant, redundantTables, primary, primaryTables;  // sectors of directories and first tables
  } cases[] = {
      {512, 128, 128, 1, 2, 6, 7},
      {513, 128, 128, 1, 2, 10, 11},           // a partial last table is still 4 sectors
      {128 * 512, 128, 1152, 1, 2, 514, 515},  // 128 tables fill one directory sector
      {129 * 512, 128, 1152, 1, 3, 519, 521},  // 129 need a second one, zero-filled
      {0, 128, 128, 1, 1, 1, 1},               // header and fill only
      {512, 11, 11, 1, 2, 6, 7},               // head ends on a grain border: no fill
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.grains << " grains of " << c.grainSize);
    Bytes want(c.sectors * 512, 0);
    putSector(want, 0, header(false, c.grains * c.grainSize, c.grainSize, c.redundant, c.primary, c.sectors));
    putWords(want, c.redundant, c.redundantTables, (c.grains + 511) / 512, 4);
    putWords(want, c.primary, c.primaryTables, (c.grains + 511) / 512, 4);
    EXPECT_EQ(difference(create(false, c.grains, c.grainSize), want), "");
  }
}

TEST_F(EmptyExtentFileTest, CompressedLayoutIsExact) {
  // Every directory and table behind its marker, the slot directory behind the
  // grain directories, then footer marker, footer and end-of-stream marker. A
  // key hash selects the extended header form, in header and footer alike.
  for (const Bytes& keyHash : {Bytes(), Bytes(32, 0x42)}) {
    SCOPED_TRACE(keyHash.size());
    Bytes want(131 * 512, 0);
    const Bytes h = header(true, 65536, 128, 2, 9, 128, keyHash);
    putSector(want, 0, h);
    putSector(want, 129, h);
    // Sector, type and count of each marker.
    const uint64_t markers[][3] = {{1, 2, 1},           {3, 1, 4},           {8, 2, 1},  {10, 1, 4},
                                   {15, 0x18349002, 1}, {17, 0x18349001, 2}, {128, 3, 1}};
    for (const auto& [sector, type, count] : markers) {
      test::putLE(want, sector * 512, count, 8);
      test::putLE(want, sector * 512 + 12, type, 4);
    }
    const uint64_t words[][2] = {{2, 4}, {9, 11}, {16, 18}};  // each directory's one table
    for (const auto& [sector, word] : words) test::putLE(want, sector * 512, word, 4);
    kx::TBuffer<unsigned char> hash;
    hash.assign(keyHash.data(), keyHash.size());
    EXPECT_EQ(difference(create(true, 512, 128, nullptr, 0, hash), want), "");
  }
}

// The grain directories follow the descriptor's sectors, and the descriptor
// reads back, with the encoding that storing adds.
TEST_F(EmptyExtentFileTest, DescriptorIsEmbeddedAndReadsBack) {
  zarn::CVMDKDescriptor descriptor;
  descriptor.setCreateType("monolithicSparse");
  const Bytes f = create(false, 16, 128, &descriptor, 20);
  EXPECT_EQ(std::make_tuple(test::le64(f, 28), test::le64(f, 36), test::le64(f, 48), test::le32(f, 21 * 512)),
            std::make_tuple(1u, 20u, 21u, 22u));
  auto stream = zarn::openVMDKFileStream(fs_.get(), uri_, kx::IIOStream::ACCESS_READ);
  auto accessor = kx::create<zarn::CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ);
  EXPECT_EQ(accessor->getDescriptor()->toString(), "createType=\"monolithicSparse\"\nencoding=\"UTF-8\"\n");

  // Bad arguments touch no file; a descriptor too large for its sectors
  // deletes the half-made one.
  EXPECT_THROW(create(true, 0), kx::CInvalidArgError);
  test::writeFileBytes(*fs_, uri_, Bytes{1, 2, 3});
  const struct {
    bool compressed;
    int64_t grains;
    int64_t grainSize;
    size_t zerosSize;
    int64_t descriptorSectors;  // 0: no descriptor
    size_t keyHashSize;
  } cases[] = {
      {false, 16, 128, 100, 0, 0},
      {false, -1, 128, 4096, 0, 0},
      {false, 16, 0, 4096, 0, 0},
      {true, 0, 128, 4096, 0, 0},
      {false, 1, int64_t{1} << 60, 4096, 0, 0},   // the grain's bytes wrap round 64 bits
      {false, 1, 4194304, 4096, 0, 0},             // a 2 GiB grain
      {true, 1, 65536, 4096, 0, 0},                // a slot size beyond 16 bits
      {false, int64_t{1} << 41, 128, 4096, 0, 0},  // 2^32 tables
      {false, INT64_MAX, 1, 4096, 0, 0},           // the capacity wraps round 64 bits
      {false, 512 * ((int64_t{1} << 29) - 1), 1, 4096, 0, 0},  // tables past sector 2^32 - 1
      {true, int64_t{512} * 329787530, 5, 4096, 0, 0},           // the trail past sector 2^32 - 1
      {false, 16, 128, 4096, 10241, 0},                          // a descriptor area above 5 MiB
      {false, 16, 128, 4096, 0, 428},                            // a key hash beyond the header
  };
  // Any open fails: an argument that slipped through shows as that failure,
  // not as a file of terabytes.
  auto noOpen = kx::create<test::CFaultInjectionFileSystem>(fs_);
  noOpen->failNth(test::FileOp::Open, 1, true);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.grains << " grains of " << c.grainSize);
    EXPECT_THROW(zarn::createEmptyVMDKSparseExtentFile(noOpen.get(), uri_, c.compressed, c.grains, c.grainSize,
                                                       kx::TBuffer<unsigned char>(c.zerosSize),
                                                       c.descriptorSectors ? &descriptor : nullptr,
                                                       c.descriptorSectors, kx::TBuffer<unsigned char>(c.keyHashSize)),
                 kx::CInvalidArgError);
  }
  EXPECT_EQ(test::readFileBytes(*fs_, uri_), (Bytes{1, 2, 3}));

  descriptor.setValue("ddb.comment", kx::String('x', 600), true, false);
  test::CLogCapture log;
  EXPECT_THROW(create(false, 16, 128, &descriptor, 1), kx::CError);
  EXPECT_FALSE(fs_->fileExists(uri_));
  ASSERT_EQ(log.count(kx::LogLevel::Error), 1u);
  EXPECT_EQ(
      log.lines[0].text,
      "Error in CVMDKDisk::createEmptySparseExtentFile ('file:///vms/disk.vmdk'). Deleting file and letting "
      "error through.");
}

// Walks every open, write and flush of the creation and fails it: the
// caller sees that error, and the half-made file is deleted. Every other
// time the delete fails too; the first error must still win.
TEST(EmptyExtentFileFaultTest, EveryFailedOperationLeavesNoFileAndItsErrorWins) {
  const kx::CURI uri(kx::String("file:///vms/disk.vmdk"));
  kx::TBuffer<unsigned char> zeros(4096);
  for (const test::FileOp op : {test::FileOp::Open, test::FileOp::Write, test::FileOp::Flush}) {
    for (int n = 1;; ++n) {
      SCOPED_TRACE(testing::Message() << test::getFileOpName(op) << " " << n);
      auto memory = kx::create<kx::CMemoryFileSystem>();
      auto faulty = kx::create<test::CFaultInjectionFileSystem>(memory);
      faulty->failNth(op, n);
      const bool deleteFails = n % 2 == 0;
      if (deleteFails) faulty->failNth(test::FileOp::Delete, 1);
      test::CLogCapture log;
      try {
        zarn::createEmptyVMDKSparseExtentFile(faulty.get(), uri, true, 2000, 128, zeros, nullptr, 0, {});
        ASSERT_EQ(faulty->getFaultCount(), 0) << "failed silently";
        ASSERT_GT(n, 1) << "never called";
        break;
      } catch (const kx::CFileSystemError& e) {
        EXPECT_EQ(e.getProps().get("op"), test::getFileOpName(op));
      }
      EXPECT_EQ(memory->fileExists(uri), deleteFails);
      EXPECT_EQ(faulty->getCallCount(test::FileOp::Delete), 1);
      ASSERT_EQ(log.count(kx::LogLevel::Error), deleteFails ? 2u : 1u);
      if (deleteFails) {
        EXPECT_EQ(log.lines[1].text, "Error deleting half-finished extent file. Ignoring.");
      }
    }
  }
}

// The head is written front to back; only the header goes out twice, and the
// file is written in pieces no smaller than the zeros buffer allows.
// A new file is made at its full length, and only what isn't zero is
// written, in one pass: the empty tables of a plain extent stay holes, the
// marked tables of a compressed one (a marker every few sectors) are written.
TEST_F(EmptyExtentFileTest, CreationWritesOnlyWhatIsNotZeroInOnePass) {
  auto counting = kx::create<test::CCountingFileSystem>(fs_);
  for (bool compressed : {false, true}) {
    SCOPED_TRACE(compressed ? "compressed" : "plain");
    fs_->deleteFile(uri_, true);
    counting->reset();
    zarn::createEmptyVMDKSparseExtentFile(counting.get(), uri_, compressed, 1 << 16, 128, zeros_, nullptr, 0,
                                          {});
    const int64_t length = test::readFileBytes(*fs_, uri_).size();
    if (compressed) {
      EXPECT_LE(counting->getBytes(test::FileOp::Write), length);
    } else {
      EXPECT_LE(counting->getBytes(test::FileOp::Write), 4 * 512);  // header and two directories
    }
    EXPECT_LE(counting->getCount(test::FileOp::Write), length / 65536 + 4);
    EXPECT_EQ(counting->getCount(test::FileOp::SetLength), 2);
    EXPECT_EQ(counting->getCount(test::FileOp::Read), 0);
  }
}

}  // namespace
