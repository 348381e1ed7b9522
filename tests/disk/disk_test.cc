// The disk through its public interface: made, written, dropped, reopened and
// read back, in every layout, against a plain byte model of the disk.
#include "zarn/disk.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "kx/memory_file_system.h"
#include "kx/parse.h"
#include "tests/support/caught_error.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/temp_dir.h"
#include "zarn/data_preparer.h"
#include "zarn/descriptor_accessor.h"
#include "zarn/low_level_file_stream.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int64_t kMiB = 1 << 20;

struct Layout {
  const char* createType;
  bool compressed;
  int64_t fileSizeLimit;
  const char* password;
  size_t files;  // with the descriptor file, if any
};

const Layout kLayouts[] = {
    {"monolithicSparse", false, -1, "", 1},
    {"twoGbMaxExtentSparse", false, 4 * kMiB, "", 8},
    {"streamOptimized", true, -1, "", 1},
    {"streamOptimized", true, 8 * kMiB, "", 12},
    {"twoGbMaxExtentSparse", false, 4 * kMiB, "p\xC3\xA4ss", 8},
    {"streamOptimized", true, -1, "secret", 1},
};

class DiskTest : public ::testing::Test {
 protected:
  kx::P<zarn::CVMDKDisk> create(const Layout& layout, int64_t size = 24 * kMiB) {
    return zarn::CVMDKDisk::create(fs_.get(), uri_, size, kx::String::FromUTF8(layout.password), layout.compressed, -1,
                                   layout.fileSizeLimit, "", 0xFFFFFFFF, false);
  }
  kx::P<zarn::CVMDKDisk> open(kx::IIOStream::Access access, const char* password = "") {
    return kx::create<zarn::CVMDKDisk>(fs_.get(), uri_, access, kx::String::FromUTF8(password));
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///vms/disk.vmdk")};
};

TEST_F(DiskTest, EveryLayoutReadsBackWhatWasWritten) {
  for (const Layout& layout : kLayouts) {
    SCOPED_TRACE(std::string(layout.createType) + " " + std::to_string(layout.fileSizeLimit) + " " + layout.password);
    for (const kx::CURI& file : fs_->listFiles()) fs_->deleteFile(file, true);
    Bytes model(24 * kMiB, 0), back(model.size());
    {
      auto disk = create(layout);
      ASSERT_EQ(disk->getSizeBytes(), 24 * kMiB);
      EXPECT_EQ(disk->getDescriptor()->getCreateType(), layout.createType);
      // Writes of every shape: across grains and extents, partial grains,
      // zeros over holes and over data, and rewrites that change how well a
      // compressed grain packs.
      uint64_t x = 7;
      for (int i = 0; i < 60; ++i) {
        x = x * 6364136223846793005ULL + 1442695040888963407ULL;
        const int64_t at = static_cast<int64_t>((x >> 20) % (24 * kMiB - 300000));
        const int size = static_cast<int>((x >> 8) % 300000) + 1;
        Bytes data = i % 3 == 0 ? Bytes(size, 0) : i % 3 == 1 ? test::noiseGrain(size, x) : test::textGrain(size, i);
        disk->seek(at);
        disk->write(data.data(), size);
        std::copy(data.begin(), data.end(), model.begin() + at);
      }
      disk->seek(0);  // before and after reopening
      disk->read(back.data(), static_cast<int>(back.size()));
      EXPECT_TRUE(back == model);
    }
    EXPECT_EQ(fs_->listFiles().size(), layout.files);
    auto disk = open(kx::IIOStream::ACCESS_READ, layout.password);
    disk->read(back.data(), static_cast<int>(back.size()));
    EXPECT_TRUE(back == model);
  }
}

int64_t extentSectors(const zarn::CVMDKDisk& disk, std::vector<std::string>* names = nullptr) {
  kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
  disk.getDescriptor()->getExtentEntries(extents);
  int64_t total = 0;
  for (const auto& e : extents) {
    if (names) names->push_back(e->getFilename().toUTF8());
    total += e->getSizeSectors();
  }
  return total;
}

TEST_F(DiskTest, CreationSizesFilesByTheLimit) {
  const int64_t tenGiB = int64_t{10} << 30;
  struct Case {
    bool compressed;
    int64_t limit;
    const char* createType;
    size_t extents;
    int64_t firstGrains, lastGrains;
  } cases[] = {
      {false, 0x80000000, "twoGbMaxExtentSparse", 6, 32762, 30},
      {true, 0x80000000, "streamOptimized", 11, 16222, 163840 - 10 * 16222},
      {false, -1, "monolithicSparse", 1, 163840, 163840},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.createType);
    for (const kx::CURI& file : fs_->listFiles()) fs_->deleteFile(file, true);
    auto disk = zarn::CVMDKDisk::create(fs_.get(), uri_, tenGiB, "", c.compressed, -1, c.limit, "", 0xFFFFFFFF, false);
    std::vector<std::string> names;
    EXPECT_EQ(extentSectors(*disk, &names) * 512, tenGiB);
    ASSERT_EQ(names.size(), c.extents);
    EXPECT_EQ(disk->getDescriptor()->getCreateType(), c.createType);
    EXPECT_EQ(names[0], c.createType[0] == 't' ? "disk-s00000.vmdk" : "disk.vmdk");
    EXPECT_EQ(names.back(), c.extents == 1 ? "disk.vmdk" : kx::String::Format("disk-s%05d.vmdk", int(c.extents - 1)).ToStdString());
    for (size_t i = 0; i < names.size(); ++i) {
      const Bytes head = test::readFileBytes(*fs_, kx::CURI(kx::String("file:///vms/") + names[i]));
      EXPECT_EQ(test::le64(head, 12), uint64_t(i + 1 == names.size() ? c.lastGrains : c.firstGrains) * 128) << names[i];
    }
    const size_t descriptorFiles = c.createType[0] == 't' ? 1 : 0, lockFiles = 1;
    EXPECT_EQ(fs_->listFiles().size(), c.extents + descriptorFiles + lockFiles);
    if (c.limit == -1) {
      EXPECT_EQ(test::le64(test::readFileBytes(*fs_, uri_), 36), 65u);  // descriptor sectors
    }
  }
  auto small = zarn::CVMDKDisk::create(fs_.get(), uri_, 1, "", false, -1, 0x80000000, "", 0xFFFFFFFF, false);
  EXPECT_EQ(small->getDescriptor()->getGeometryCylinders(), 2);
  EXPECT_TRUE(fs_->fileExists(kx::CURI(kx::String("file:///vms/disk-s00000.vmdk"))));
}

// Each layout up to the largest disk it can describe: one file up to 2 TiB,
// split ones until the extent lines fill the largest descriptor.
TEST_F(DiskTest, CreationReachesTheLargestSizesEachLayoutAllows) {
  constexpr int64_t kTiB = int64_t{1} << 40, kGiB = int64_t{1} << 30;
  struct Case {
    int64_t size;
    bool compressed;
    int64_t limit;
    int64_t extents;  // 0: refused
  } cases[] = {
      {2 * kTiB, false, -1, 1},           {2 * kTiB, true, -1, 1},
      {64 * kTiB, false, 2 * kGiB, 32775}, {64 * kTiB, true, 2 * kGiB, 66310},
      {128 * kTiB, false, 2 * kGiB, 65549}, {256 * kTiB, false, 2 * kGiB, 0},
      {100 * 1024 * kTiB, false, 2 * kTiB, 51207}, {100 * 1024 * kTiB, true, 2 * kTiB, 0},
      {50 * 1024 * kTiB, true, 2 * kTiB, 51614},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.size) + (c.compressed ? " compressed " : " ") + std::to_string(c.limit));
    if (c.extents == 0) {
      EXPECT_THROW(zarn::CVMDKDisk::calcCreationLayout(c.size, c.compressed, c.limit, "disk.vmdk"), kx::CInvalidArgError);
      continue;
    }
    const auto layout = zarn::CVMDKDisk::calcCreationLayout(c.size, c.compressed, c.limit, "disk.vmdk");
    EXPECT_EQ(layout.extentCount, c.extents);
    EXPECT_GE(layout.grainsPerExtent * layout.extentCount * 65536, c.size);
    EXPECT_LE(layout.descriptorSectors * 512, 5 << 20);
  }
  // Made for real, as far as a test can: 64 TiB in files of 2 TiB, whose
  // empty tables stay holes.
  test::CTempDir dir;
  auto local = kx::create<kx::CLocalFileSystem>();
  const kx::CURI uri = dir.getFileURI("big.vmdk");
  {
    auto disk = zarn::CVMDKDisk::create(local.get(), uri, 64 * kTiB, "", false, -1, 2 * kTiB, "", 0xFFFFFFFF, false);
    EXPECT_EQ(disk->getSizeBytes(), 64 * kTiB);
    disk->seek(64 * kTiB - 3);
    disk->write("end", 3);
  }
  auto disk = kx::create<zarn::CVMDKDisk>(local.get(), uri, kx::IIOStream::ACCESS_READ, "");
  char back[3];
  disk->seek(64 * kTiB - 3);
  disk->read(back, 3);
  EXPECT_EQ(std::string(back, 3), "end");
}

TEST_F(DiskTest, CreationRefusesBeforeTouchingAFile) {
  struct Case {
    int64_t size;
    bool compressed;
    int64_t limit;
    const char* parent;
    uint32_t parentCID;
    const char* message;
  } cases[] = {
      {1, false, -1, "base.vmdk", 0xFFFFFFFF,
       "sParentRelPath and parentContentID must either both be specified or both have the default values."},
      {1, false, -1, "", 5, "sParentRelPath and parentContentID must either both be specified or both have the default values."},
      {(int64_t{2} << 40) + 1, false, -1, "", 0xFFFFFFFF,
       "Invalid VMDK disk size for single unsplittable disk file: 2199023321088 bytes."},
      {1, true, 1 << 20, "", 0xFFFFFFFF, "Internal error: calculated VMDK maxExtentPayloadBytes is less than grain size: -1507328"},
      {1, false, 128 << 10, "", 0xFFFFFFFF, "Internal error: calculated VMDK maxExtentPayloadBytes is less than grain size: 0"},
      {int64_t{8} << 30, false, 131073, "", 0xFFFFFFFF,
       "The VMDK disk would need 131072 extent files, more than a descriptor can name; a larger file size limit needs "
       "fewer."},
  };
  const kx::CURI quoted(kx::String("file:///vms/a%22b.vmdk"));
  EXPECT_EQ(test::caught([&] { zarn::CVMDKDisk::create(fs_.get(), quoted, 1, "", false, -1, -1, "", 0xFFFFFFFF, false); },
                         kx::CError("none")).getMessage(),
            "The main file's name can't be written into a VMDK descriptor: 'a\"b.vmdk'");
  for (const Case& c : cases) {
    const kx::CError error = test::caught(
        [&] { zarn::CVMDKDisk::create(fs_.get(), uri_, c.size, "", c.compressed, -1, c.limit, c.parent, c.parentCID, false); },
        kx::CError("none"));
    EXPECT_EQ(error.getMessage().ToStdString(), c.message);
    EXPECT_TRUE(fs_->listFiles().empty());
  }
}

// A single-file disk copied or renamed is itself, not the file its extent
// line names: it reads and writes its own bytes, and its first write gives
// the line its own name. The original stays as it was.
TEST_F(DiskTest, ACopiedSingleFileDiskReadsAndWritesItself) {
  for (const Layout& layout : {kLayouts[0], kLayouts[2]}) {
    SCOPED_TRACE(layout.createType);
    const Bytes first = test::textGrain(65536, 1), second = test::noiseGrain(65536, 2);
    create(layout)->write(first.data(), 65536);
    const kx::CURI copy(kx::String("file:///vms/copy.vmdk"));
    const kx::TBuffer<unsigned char> original = fs_->getFileData(uri_);
    fs_->setFileData(copy, original.getData(), original.getUsed());
    {
      auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), copy, kx::IIOStream::ACCESS_READ_WRITE, "");
      Bytes back(65536);
      disk->read(back.data(), 65536);
      EXPECT_EQ(back, first);
      disk->seek(0);
      disk->write(second.data(), 65536);
    }
    EXPECT_TRUE(fs_->getFileData(uri_) == original);
    auto disk = kx::create<zarn::CVMDKDisk>(fs_.get(), copy, kx::IIOStream::ACCESS_READ, "");
    Bytes back(65536);
    disk->read(back.data(), 65536);
    EXPECT_EQ(back, second);
    kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
    kx::create<zarn::CVMDKDescriptorAccessor>(zarn::openVMDKFileStream(fs_.get(), copy, kx::IIOStream::ACCESS_READ).get(),
                                             kx::IIOStream::ACCESS_READ)
        ->getDescriptor()
        ->getExtentEntries(extents);
    ASSERT_EQ(extents.size(), 1u);
    EXPECT_EQ(extents[0]->getFilename(), "copy.vmdk");
  }
}

// A copy between encrypted disks by stored forms: the source's grains are
// decrypted and the target's encrypted by codecs of their own, on another
// thread than the disks', and the target reads as the source.
TEST_F(DiskTest, StoredGrainsCopyBetweenDisksThroughCodecsOnOtherThreads) {
  for (bool compressed : {false, true}) {
    SCOPED_TRACE(compressed);
    const kx::CURI target(kx::String("file:///vms/target.vmdk"));
    auto source = zarn::CVMDKDisk::create(fs_.get(), uri_, 24 * kMiB, "one", compressed, -1, -1, "", 0xFFFFFFFF, false);
    auto copy = zarn::CVMDKDisk::create(fs_.get(), target, 24 * kMiB, "two", compressed, -1, -1, "", 0xFFFFFFFF, false);
    const Bytes text = test::textGrain(65536, 4), noise = test::noiseGrain(65536, 5);
    source->seek(0);
    source->write(text.data(), 65536);
    source->write(noise.data(), 65536);
    kx::P<zarn::CVMDKGrainCodec> decoder = source->createGrainCodec(), encoder = copy->createGrainCodec();
    ASSERT_TRUE(decoder && encoder);
    // Both grains go through the encoder in one call, as the tool's threads
    // hand it theirs.
    kx::TBuffer<unsigned char> stored[3], prepared[2], restored[2];
    for (int64_t g = 0; g < 3; ++g) {
      source->seek(g * 65536);
      const bool held = source->readStoredGrainData(stored[g]);
      EXPECT_EQ(held, g < 2);
      if (!held) {
        EXPECT_TRUE(stored[g].isEmpty());
      }
    }
    std::thread([&] {
      std::vector<zarn::CVMDKGrainCodec::CJob> jobs;
      for (int64_t g = 0; g < 2; ++g) {
        int64_t size = 0;
        if (compressed) size = test::le32(Bytes(stored[g].getData(), stored[g].getData() + 12), 8);
        decoder->decrypt(g, stored[g].getData(), static_cast<int64_t>(stored[g].getUsed()), size, prepared[g]);
        jobs.push_back({g, prepared[g].getData(), static_cast<int64_t>(prepared[g].getUsed()), &restored[g]});
      }
      encoder->encryptMany(jobs.data(), jobs.size());
    }).join();
    for (int64_t g = 0; g < 2; ++g) {
      copy->seek(g * 65536);
      copy->writeStoredGrainData(restored[g]);
    }
    Bytes back(2 * 65536);
    copy->seek(0);
    copy->read(back.data(), static_cast<int>(back.size()));
    EXPECT_TRUE(std::equal(text.begin(), text.end(), back.begin()));
    EXPECT_TRUE(std::equal(noise.begin(), noise.end(), back.begin() + 65536));
    EXPECT_FALSE(zarn::CVMDKDisk::create(fs_.get(), kx::CURI(kx::String("file:///vms/clear.vmdk")), 24 * kMiB, "",
                                         compressed, -1, -1, "", 0xFFFFFFFF, false)
                     ->createGrainCodec());
    if (!compressed) {
      restored[0].setUsed(100);
      copy->seek(0);
      EXPECT_EQ(test::ioErrorCode([&] { copy->writeStoredGrainData(restored[0]); }), 5);
    }
  }
}

TEST_F(DiskTest, OpeningAndIOErrorsCarryTheirCodesAndMessages) {
  const auto rewrite = [&](const std::string& from, const std::string& to) {
    Bytes bytes = test::readFileBytes(*fs_, uri_);
    std::string text(bytes.begin(), bytes.end());
    text.replace(text.find(from), from.size(), to);
    test::writeFileBytes(*fs_, uri_, Bytes(text.begin(), text.end()));
  };
  create({"", false, 4 * kMiB, "secret", 0});
  struct OpenCase {
    const char* password;
    std::function<void()> change;
    const char* message;
  } opening[] = {
      {"", nullptr, "VMDK is encrypted but no password provided"},
      {"wrong", nullptr, "Specified VMDK encryption password is not correct."},
      {"secret", [&] { rewrite("twoGbMaxExtentSparse", "vmfs"); }, "VMDK disk has an unsupported create type: 'vmfs'."},
      {"secret", [&] { rewrite("SPARSE \"disk-s00002", "FLAT \"disk-s00002"); }, "VMDK disk has an unsupported extent type: 'FLAT'."},
      {"secret", [&] { for (int i = 0; i < 7; ++i) rewrite("\nRW ", "\n#W "); }, "VMDK disk has no extents."},
  };
  const Bytes original = test::readFileBytes(*fs_, uri_);
  for (const auto& c : opening) {
    test::writeFileBytes(*fs_, uri_, original);
    if (c.change) c.change();
    const kx::CError error = test::caught([&] { open(kx::IIOStream::ACCESS_READ_WRITE, c.password); }, kx::CError("none"));
    EXPECT_EQ(error.getMessage(), c.message);
    EXPECT_EQ(error.getProps().get("uri"), "file:///vms/disk.vmdk") << c.message;
  }
  test::writeFileBytes(*fs_, uri_, original);
  open(kx::IIOStream::ACCESS_READ_WRITE, "secret");  // no lock was left behind

  auto disk = open(kx::IIOStream::ACCESS_READ, "secret");
  kx::TBuffer<unsigned char> prepared;
  Bytes buffer(2);
  const int64_t end = disk->getSizeBytes();
  const std::string main = "mainFileURI: file:///vms/disk.vmdk, ";
  struct IOCase {
    int64_t at;
    std::function<void()> op;
    int code;
    const char* message;
    std::string props = "";
  } io[] = {
      {end, [&] { disk->read(buffer.data(), 1); }, 4, "Read exceeds VMDK disk size.",
       main + "position: 25165824, bytesToRead: 1"},
      {end, [&] { disk->write(buffer.data(), 1); }, 3, "Write exceeds VMDK disk size.",
       main + "position: 25165824, bytesToWrite: 1"},
      {0, [&] { disk->write(buffer.data(), 0); }, -1,
       "Internal error: CVMDKDisk::write was called, but the disk was not opened for writing."},
      {0, [&] { disk->seek(end + 1); }, 7, "Bad seek position in VMDK disk: 25165825", main + "diskSize: 25165824"},
      {end - 100, [&] { disk->readPreparedGrainData(prepared); }, 3, "Prepared grain read exceeds VMDK disk size.",
       main + "position: 25165724, grainSize: 65536, diskSize: 25165824"},
      {100, [&] { disk->readPreparedGrainData(prepared); }, 11,
       "Prepared grain read in VMDK disk can only be done on a grain boundary."},
      {end, [&] { disk->isGrainWritten(); }, -1, "Internal error: cannot find VMDK extent for position 25165824"},
      {0, [&] { disk->changeParentRelPath("x.vmdk"); }, -1,
       "Internal error: CVMDKDisk::changeParentRelPath was called, but the disk was not opened for writing."},
  };
  for (const auto& c : io) {
    disk->seek(c.at);
    const kx::CError error = test::caught(c.op, kx::CError("none", "", 0));
    EXPECT_EQ(error.getCode(), c.code) << c.message;
    EXPECT_EQ(error.getMessage(), c.message);
    if (!c.props.empty()) {
      EXPECT_EQ(error.getProps().toString(), c.props);
    }
    EXPECT_EQ(disk->getPosition(), c.at) << c.message;
  }
}

TEST_F(DiskTest, AReaderNeedsNoLockFileButAWriterDoes) {
  create(kLayouts[0]);
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(fs_);
  faulty->failNth(test::FileOp::Open, 1);  // the lock file's
  EXPECT_NO_THROW(kx::create<zarn::CVMDKDisk>(faulty.get(), uri_, kx::IIOStream::ACCESS_READ, ""));
  faulty->failNth(test::FileOp::Open, 1);
  EXPECT_THROW(kx::create<zarn::CVMDKDisk>(faulty.get(), uri_, kx::IIOStream::ACCESS_READ_WRITE, ""), kx::CError);
  auto writer = open(kx::IIOStream::ACCESS_READ_WRITE);
  EXPECT_THROW(open(kx::IIOStream::ACCESS_READ_WRITE), kx::CLockFileError);
  EXPECT_THROW(open(kx::IIOStream::ACCESS_READ), kx::CLockFileError);
  writer = nullptr;
  EXPECT_NO_THROW(open(kx::IIOStream::ACCESS_READ_WRITE));
}

TEST(DiskKeysTest, DerivationIsPBKDF2OfTheUTF8Password) {
  kx::TBuffer<unsigned char> salt;
  salt.assign(reinterpret_cast<const unsigned char*>("0123456789abcdef"), 16);
  kx::TCryptBuffer<unsigned char> key;
  zarn::CVMDKDisk::deriveEncryptKey(key, 32, kx::String::FromUTF8("p\xC3\xA4ssw\xC3\xB6rd"),
                                    "pkcs5-pbkdf2-hmac-sha1:1000", salt);
  EXPECT_EQ(kx::hexEncode(key), "1c1d6e227f508278d9e0fba0a9637ff3c6c61db0dcaec96e3ac87a1b0faabe47");

  kx::TBuffer<unsigned char> shortSalt(7);
  const struct {
    const char* algorithm;
    const kx::TBuffer<unsigned char>* salt;
    const char* message;
  } cases[] = {
      {"pkcs5-pbkdf2-hmac-sha256:1000", &salt, "Unknown encryption key derivation algorithm: pkcs5-pbkdf2-hmac-sha256:1000"},
      {"pkcs5-pbkdf2-hmac-sha1:999", &salt, "Key derivation iterations are too small: 999"},
      {"pkcs5-pbkdf2-hmac-sha1:999", &shortSalt, "Key derivation salt is too small: 7 bytes"},
  };
  for (const auto& c : cases) {
    const kx::CError error = test::caught([&] { zarn::CVMDKDisk::deriveEncryptKey(key, 32, "x", c.algorithm, *c.salt); },
                                          kx::CError("none"));
    EXPECT_EQ(error.getMessage(), c.message);
  }
  EXPECT_THROW(zarn::CVMDKDisk::deriveEncryptKey(key, 32, "x", "pkcs5-pbkdf2-hmac-sha1:", salt), kx::CError);
}

}  // namespace
