#include "zarn/empty_extent_file.h"

#include <gtest/gtest.h>

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
#include "zarn/markers.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Expected positions below are the worked examples of the layout, written out
// as numbers rather than computed, so that they check the arithmetic of the
// writer instead of repeating it.
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
  static uint32_t word(const Bytes& file, int64_t sector, int index) {
    return test::le32(file, static_cast<size_t>(sector * 512 + index * 4));
  }
  static bool isMarker(const Bytes& file, int64_t sector, zarn::VMDKMarkerID id, int64_t count) {
    int64_t found = -1;
    return zarn::isVMDKMarker(file.data() + sector * 512, id, &found) && found == count;
  }
  static bool zeroSectors(const Bytes& file, int64_t first, int64_t count) {
    for (size_t i = first * 512; i < static_cast<size_t>((first + count) * 512); ++i) {
      if (file.at(i) != 0) return false;
    }
    return true;
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///vms/disk.vmdk")};
  kx::TBuffer<unsigned char> zeros_{65536};
};

TEST_F(EmptyExtentFileTest, PlainOneTable) {
  const Bytes f = create(false, 512);
  ASSERT_EQ(f.size(), 128u * 512);
  EXPECT_EQ(test::le32(f, 0), 0x564D444Bu);
  EXPECT_EQ(test::le32(f, 4), 1u);            // version
  EXPECT_EQ(test::le32(f, 8), 3u);            // flags
  EXPECT_EQ(test::le64(f, 12), 65536u);       // capacity
  EXPECT_EQ(test::le64(f, 20), 128u);         // grain size
  EXPECT_EQ(test::le64(f, 28), 0u);           // descriptor offset
  EXPECT_EQ(test::le64(f, 36), 0u);           // descriptor size
  EXPECT_EQ(test::le32(f, 44), 512u);         // entries per table
  EXPECT_EQ(test::le64(f, 48), 1u);           // redundant directory
  EXPECT_EQ(test::le64(f, 56), 6u);           // primary directory
  EXPECT_EQ(test::le64(f, 64), 128u);         // overhead
  EXPECT_EQ(test::le16(f, 77), 0);            // no compression
  EXPECT_EQ(word(f, 1, 0), 2u);
  EXPECT_EQ(word(f, 6, 0), 7u);
  EXPECT_TRUE(zeroSectors(f, 2, 4));
  EXPECT_TRUE(zeroSectors(f, 7, 121));
}

TEST_F(EmptyExtentFileTest, CompressedOneTable) {
  const Bytes f = create(true, 512);
  ASSERT_EQ(f.size(), 131u * 512);
  EXPECT_EQ(test::le32(f, 4), 3u);
  EXPECT_EQ(test::le32(f, 8), 0x00030003u);
  EXPECT_EQ(test::le64(f, 48), 2u);
  EXPECT_EQ(test::le64(f, 56), 9u);
  EXPECT_EQ(test::le64(f, 64), 128u);
  EXPECT_EQ(test::le16(f, 77), 1);
  EXPECT_TRUE(isMarker(f, 1, zarn::MARKER_GD, 1));
  EXPECT_EQ(word(f, 2, 0), 4u);
  EXPECT_TRUE(isMarker(f, 3, zarn::MARKER_GT, 4));
  EXPECT_TRUE(zeroSectors(f, 4, 4));
  EXPECT_TRUE(isMarker(f, 8, zarn::MARKER_GD, 1));
  EXPECT_EQ(word(f, 9, 0), 11u);
  EXPECT_TRUE(isMarker(f, 10, zarn::MARKER_GT, 4));
  EXPECT_TRUE(zeroSectors(f, 11, 4));
  EXPECT_TRUE(isMarker(f, 15, zarn::MARKER_KX_SLOT_DIRECTORY, 1));
  EXPECT_EQ(word(f, 16, 0), 18u);
  EXPECT_TRUE(isMarker(f, 17, zarn::MARKER_KX_SLOT_TABLE, 2));
  EXPECT_TRUE(zeroSectors(f, 18, 2));
  EXPECT_TRUE(zeroSectors(f, 20, 108));
  EXPECT_TRUE(isMarker(f, 128, zarn::MARKER_FOOTER, 1));
  EXPECT_EQ(Bytes(f.begin() + 129 * 512, f.begin() + 130 * 512), Bytes(f.begin(), f.begin() + 512));
  EXPECT_TRUE(isMarker(f, 130, zarn::MARKER_EOS, 0));
}

TEST_F(EmptyExtentFileTest, PartialLastTable) {
  const Bytes f = create(false, 513);
  EXPECT_EQ(word(f, 1, 0), 2u);
  EXPECT_EQ(word(f, 1, 1), 6u);
  EXPECT_EQ(word(f, 1, 2), 0u);
  EXPECT_EQ(test::le64(f, 56), 10u);
  EXPECT_EQ(word(f, 10, 0), 11u);
  EXPECT_EQ(word(f, 10, 1), 15u);
  EXPECT_TRUE(zeroSectors(f, 11, 117));  // the second table is a full 4 sectors of zeros
  EXPECT_EQ(f.size(), 128u * 512);
}

TEST_F(EmptyExtentFileTest, DirectoryFillsItsLastSector) {
  struct Case {
    int64_t grains;
    uint64_t primary;      // sector of the primary directory
    uint32_t lastWord;     // word 127 or 128 of the redundant directory
    int lastIndex;
    uint64_t overhead;
  } cases[] = {
      {128 * 512, 514, 2 + 4 * 127, 127, 1152},  // 128 tables: one directory sector, no fill
      {129 * 512, 519, 3 + 4 * 128, 128, 1152},  // 129 tables: two sectors, 508 bytes of fill
  };
  for (const auto& c : cases) {
    const Bytes f = create(false, c.grains);
    EXPECT_EQ(test::le64(f, 56), c.primary);
    EXPECT_EQ(word(f, 1, c.lastIndex), c.lastWord);
    EXPECT_EQ(test::le64(f, 64), c.overhead);
    if (c.lastIndex == 128) {
      for (int i = 129; i < 256; ++i) ASSERT_EQ(word(f, 1, i), 0u) << i;
    }
  }
}

TEST_F(EmptyExtentFileTest, NoGrainsIsHeaderAndDescriptorOnly) {
  const Bytes f = create(false, 0);
  EXPECT_EQ(test::le64(f, 48), 1u);
  EXPECT_EQ(test::le64(f, 56), 1u);
  EXPECT_EQ(test::le64(f, 64), 128u);
  EXPECT_EQ(f.size(), 128u * 512);
  EXPECT_THROW(create(true, 0), kx::CInvalidArgError);
}

TEST_F(EmptyExtentFileTest, HeadOnAGrainBorderGetsNoFill) {
  // Plain, G = 512, S = 11: the head is exactly 11 sectors.
  const Bytes f = create(false, 512, 11);
  EXPECT_EQ(f.size(), 11u * 512);
  EXPECT_EQ(test::le64(f, 64), 11u);
}

TEST_F(EmptyExtentFileTest, DescriptorIsEmbeddedAndReadsBack) {
  const char text[] = "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\n"
                      "createType=\"monolithicSparse\"\n\n# Extent description\nRW 1048576 SPARSE \"disk.vmdk\"\n";
  kx::TBuffer<unsigned char> buffer(sizeof text - 1);
  std::memcpy(buffer.getData(), text, sizeof text - 1);
  zarn::CVMDKDescriptor descriptor(buffer);
  const Bytes f = create(false, 16, 128, &descriptor, 20);
  EXPECT_EQ(test::le64(f, 28), 1u);
  EXPECT_EQ(test::le64(f, 36), 20u);
  EXPECT_EQ(test::le64(f, 48), 21u);
  EXPECT_EQ(word(f, 21, 0), 22u);

  auto stream = zarn::openVMDKFileStream(fs_.get(), uri_, kx::IIOStream::ACCESS_READ);
  auto accessor = kx::create<zarn::CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ);
  EXPECT_TRUE(accessor->getEmbeddedInSparseExtentFile());
  EXPECT_EQ(accessor->getDescriptor()->getCreateType(), "monolithicSparse");
  EXPECT_EQ(accessor->getDescriptor()->getValue("encoding"), "UTF-8");
}

TEST_F(EmptyExtentFileTest, KeyHashSelectsTheExtendedFormInHeaderAndFooter) {
  kx::TBuffer<unsigned char> hash(32);
  hash.fill(0x42);
  const Bytes f = create(true, 512, 128, nullptr, 0, hash);
  for (int64_t sector : {0, 129}) {
    const size_t at = static_cast<size_t>(sector * 512);
    EXPECT_EQ(test::le32(f, at), 0x05644B45u);
    EXPECT_EQ(test::le16(f, at + 79), 1);
    EXPECT_EQ(test::le16(f, at + 81), 1);
    EXPECT_EQ(test::le16(f, at + 83), 32);
    EXPECT_EQ(f[at + 85 + 31], 0x42);
  }
}

TEST_F(EmptyExtentFileTest, RefusesBadArgumentsWithoutTouchingAFile) {
  test::writeFileBytes(*fs_, uri_, Bytes{1, 2, 3});
  kx::TBuffer<unsigned char> small(100);
  EXPECT_THROW(zarn::createEmptyVMDKSparseExtentFile(fs_.get(), uri_, false, 16, 128, small, nullptr, 0, {}),
               kx::CInvalidArgError);
  EXPECT_THROW(zarn::createEmptyVMDKSparseExtentFile(fs_.get(), uri_, false, -1, 128, zeros_, nullptr, 0, {}),
               kx::CInvalidArgError);
  EXPECT_THROW(zarn::createEmptyVMDKSparseExtentFile(fs_.get(), uri_, false, 16, 0, zeros_, nullptr, 0, {}),
               kx::CInvalidArgError);
  EXPECT_EQ(test::readFileBytes(*fs_, uri_), (Bytes{1, 2, 3}));
}

TEST_F(EmptyExtentFileTest, DescriptorTooLargeForItsAreaDeletesTheFile) {
  zarn::CVMDKDescriptor descriptor;
  descriptor.setValue("ddb.comment", kx::String('x', 600), true, false);
  test::CLogCapture log;
  EXPECT_THROW(create(false, 16, 128, &descriptor, 1), kx::CError);
  EXPECT_FALSE(fs_->fileExists(uri_));
  ASSERT_EQ(log.count(kx::LogLevel::Error), 1u);
  EXPECT_EQ(log.lines[0].text,
            "Error in CVMDKDisk::createEmptySparseExtentFile ('file:///vms/disk.vmdk'). Deleting file and letting "
            "error through.");
}

// Walks every write the creation makes and fails it: the caller sees the
// injected error and no file is left behind.
TEST(EmptyExtentFileFaultTest, EveryFailedWriteLeavesNoFile) {
  const kx::CURI uri(kx::String("file:///vms/disk.vmdk"));
  kx::TBuffer<unsigned char> zeros(4096);
  int writes = 0;
  {
    auto memory = kx::create<kx::CMemoryFileSystem>();
    auto counting = kx::create<test::CFaultInjectionFileSystem>(memory);
    zarn::createEmptyVMDKSparseExtentFile(counting.get(), uri, true, 2000, 128, zeros, nullptr, 0, {});
    writes = counting->getCallCount(test::FileOp::Write);
  }
  ASSERT_GT(writes, 0);
  for (int n = 1; n <= writes; ++n) {
    auto memory = kx::create<kx::CMemoryFileSystem>();
    auto faulty = kx::create<test::CFaultInjectionFileSystem>(memory);
    faulty->failNth(test::FileOp::Write, n);
    test::CLogCapture log;
    try {
      zarn::createEmptyVMDKSparseExtentFile(faulty.get(), uri, true, 2000, 128, zeros, nullptr, 0, {});
      ADD_FAILURE() << "write " << n << " failed silently";
    } catch (const kx::CFileSystemError& e) {
      EXPECT_EQ(e.getMessage().find("Injected fault"), 0u) << e.what();
    }
    EXPECT_FALSE(memory->fileExists(uri)) << "write " << n;
    EXPECT_EQ(faulty->getFaultCount(), 1);
  }
}

TEST(EmptyExtentFileFaultTest, FirstErrorWinsWhenTheDeleteFailsToo) {
  const kx::CURI uri(kx::String("file:///vms/disk.vmdk"));
  auto memory = kx::create<kx::CMemoryFileSystem>();
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(memory);
  faulty->failNth(test::FileOp::Write, 1);
  faulty->failNth(test::FileOp::Delete, 1);
  test::CLogCapture log;
  kx::TBuffer<unsigned char> zeros(512);
  try {
    zarn::createEmptyVMDKSparseExtentFile(faulty.get(), uri, false, 512, 128, zeros, nullptr, 0, {});
    FAIL();
  } catch (const kx::CError& e) {
    EXPECT_EQ(e.getProps().get("op"), "write");
  }
  ASSERT_EQ(log.count(kx::LogLevel::Error), 2u);
  EXPECT_EQ(log.lines[1].text, "Error deleting half-finished extent file. Ignoring.");
}

TEST(EmptyExtentFileFaultTest, FailedOpenStillTriesTheDelete) {
  auto memory = kx::create<kx::CMemoryFileSystem>();
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(memory);
  faulty->failNth(test::FileOp::Open, 1);
  test::CLogCapture log;
  kx::TBuffer<unsigned char> zeros(512);
  EXPECT_THROW(zarn::createEmptyVMDKSparseExtentFile(faulty.get(), kx::CURI(kx::String("file:///x.vmdk")), false,
                                                     512, 128, zeros, nullptr, 0, {}),
               kx::CFileSystemError);
  EXPECT_EQ(faulty->getCallCount(test::FileOp::Delete), 1);
}

// The head is written front to back; only the header goes out twice, and the
// file is written in pieces no smaller than the zeros buffer allows.
TEST(EmptyExtentFileCostTest, CreationIsOneSequentialPass) {
  const kx::CURI uri(kx::String("file:///vms/disk.vmdk"));
  auto memory = kx::create<kx::CMemoryFileSystem>();
  auto counting = kx::create<test::CCountingFileSystem>(memory);
  kx::TBuffer<unsigned char> zeros(65536);
  for (bool compressed : {false, true}) {
    memory->deleteFile(uri, true);
    counting->reset();
    zarn::createEmptyVMDKSparseExtentFile(counting.get(), uri, compressed, 1 << 16, 128, zeros, nullptr, 0, {});
    const int64_t length = test::readFileBytes(*memory, uri).size();
    SCOPED_TRACE(compressed ? "compressed" : "plain");
    EXPECT_GE(counting->getBytes(test::FileOp::Write), length);
    EXPECT_LE(counting->getBytes(test::FileOp::Write), length + 512);
    EXPECT_LE(counting->getCount(test::FileOp::Write), length / 65536 + 4);
    EXPECT_EQ(counting->getCount(test::FileOp::Read), 0);
  }
}

}  // namespace
