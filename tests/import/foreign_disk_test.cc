// CVMDKForeignDisk over in-memory files: flat, zero and sparse extents in one
// descriptor, chains whose links are foreign disks and this library's own,
// prepared grains, the reasons given, and the refusals of descriptors and
// chains that can't be read, each with the file named.
#include "zarn/foreign_disk.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/foreign_images.h"
#include "tests/support/grain_data.h"
#include "tests/support/log_capture.h"
#include "zarn/disk.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int kGrain = 65536;
constexpr int kDiskBytes = 8 << 20;  // the smallest disk CVMDKDisk::create makes

class ForeignDiskTest : public ::testing::Test {
 protected:
  kx::CURI uri(const std::string& name) const { return kx::CURI(kx::String("file:///vms/")) << kx::String(name); }
  void put(const std::string& name, const Bytes& bytes) { fs_->setFileData(uri(name), bytes.data(), bytes.size()); }
  void putText(const std::string& name, const std::string& text) { put(name, Bytes(text.begin(), text.end())); }
  kx::P<zarn::CVMDKForeignDisk> open(const std::string& name) {
    return kx::create<zarn::CVMDKForeignDisk>(fs_.get(), uri(name));
  }
  static Bytes readAll(zarn::IDisk& disk) {
    Bytes out(static_cast<size_t>(disk.getSizeBytes()));
    disk.seek(0);
    disk.read(out.data(), static_cast<int>(out.size()));
    return out;
  }
  static std::string descriptor(const std::string& createType, const std::string& extents,
                                const std::string& more = "", const std::string& parentCID = "ffffffff") {
    return "# Disk DescriptorFile\nversion=1\nCID=0badcafe\nparentCID=" + parentCID + "\ncreateType=\"" +
           createType + "\"\n" + more + "\n# Extent description\n" + extents +
           "\n# The Disk Data Base\nddb.adapterType = \"ide\"\n";
  }
  static std::vector<int> depths(zarn::CVMDKForeignDisk& disk) {
    std::vector<int> out;
    for (int64_t at = 0; at < disk.getSizeBytes(); at += disk.getGrainSizeBytes()) {
      disk.seek(at);
      out.push_back(disk.getAllocationDepth());
      EXPECT_EQ(disk.isGrainWritten(), out.back() >= 0);
    }
    return out;
  }
  uint32_t ownContentID(const std::string& name) {
    return kx::create<zarn::CVMDKDisk>(fs_.get(), uri(name), kx::IIOStream::ACCESS_READ)->getDescriptor()->getContentID();
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
};

TEST_F(ForeignDiskTest, FlatZeroAndSparseExtentsReadInDescriptorOrder) {
  const Bytes a = test::noiseGrain(3 * kGrain + 512, 1), b = test::textGrain(64 * 512, 2);
  const Bytes s = test::mixedData(4 * kGrain);
  put("a.raw", a);
  put("b.raw", b);
  put("s.vmdk", test::makeStreamOptimizedImage(s).bytes);
  const auto slice = [](const Bytes& from, size_t at, size_t size) {
    return Bytes(from.begin() + at, from.begin() + at + size);
  };
  const auto join = [](std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
  };
  const struct {
    const char* name;
    std::string text;
    Bytes expected;
    std::vector<int> depths;
    bool compressed;
  } cases[] = {
      {"monolithicFlat", descriptor("monolithicFlat", "RW 385 FLAT \"a.raw\" 0"), a, {0, 0, 0, 0}, false},
      {"flat at an offset", descriptor("monolithicFlat", "RW 128 FLAT \"a.raw\" 10"), slice(a, 5120, kGrain), {0},
       false},
      {"twoGbMaxExtentFlat", descriptor("twoGbMaxExtentFlat", "RW 200 FLAT \"a.raw\" 0\nRW 64 FLAT \"b.raw\" 0"),
       join({slice(a, 0, 200 * 512), b}), {0, 0, 0}, false},
      {"vmfs", descriptor("vmfs", "RW 128 VMFS \"a.raw\""), slice(a, 0, kGrain), {0}, false},
      {"zero between flat", descriptor("monolithicFlat", "RW 128 FLAT \"a.raw\" 0\nRW 256 ZERO\nRW 64 FLAT \"b.raw\" 0"),
       join({slice(a, 0, kGrain), Bytes(2 * kGrain, 0), b}), {0, -1, -1, 0}, false},
      {"sparse behind flat and zero",
       descriptor("twoGbMaxExtentSparse", "RW 128 FLAT \"a.raw\" 0\nRW 128 ZERO\nRW 512 SPARSE \"s.vmdk\""),
       join({slice(a, 0, kGrain), Bytes(kGrain, 0), s}), {0, -1, -1, 0, 0, 0}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    putText("d.vmdk", c.text);
    auto disk = open("d.vmdk");
    EXPECT_EQ(disk->getSizeBytes(), static_cast<int64_t>(c.expected.size()));
    EXPECT_TRUE(readAll(*disk) == c.expected);
    EXPECT_EQ(disk->getGrainSizeBytes(), kGrain);
    EXPECT_EQ(disk->getCompressed(), c.compressed);
    EXPECT_EQ(depths(*disk), c.depths);
    EXPECT_NE(disk->getForeignReason().find("flat extents"), kx::String::npos);
    EXPECT_TRUE(disk->getParentDiskMainURI().isEmpty());
    for (const kx::CURI& file : disk->getExtentFiles()) EXPECT_TRUE(fs_->fileExists(file)) << file.toString(true);
  }
}

TEST_F(ForeignDiskTest, DescriptorThatCantBeReadIsRefused) {
  put("a.raw", test::noiseGrain(kGrain, 1));
  put("small.vmdk", test::makeZeroedSparseImage(test::noiseGrain(kGrain, 2), {}).bytes);
  const std::string flat = "RW 128 FLAT \"a.raw\" 0";
  const struct {
    const char* name;
    std::string text;
    int code;
  } cases[] = {
      {"unknown create type", descriptor("vmfsSparse", flat), 5},
      {"no create type", "# Disk DescriptorFile\nCID=1\n" + flat + "\n", 5},
      {"unknown extent type", descriptor("vmfs", "RW 128 VMFSSPARSE \"a.raw\""), 5},
      {"extents beyond any disk", descriptor("monolithicFlat", "RW 9223372036854775000 FLAT \"a.raw\" 0"), 5},
      {"extents that add up beyond any disk",
       descriptor("monolithicFlat", "RW 10000000000000000 FLAT \"a.raw\" 0\nRW 10000000000000000 ZERO"), 5},
      {"flat offset beyond any file", descriptor("monolithicFlat", "RW 128 FLAT \"a.raw\" 9223372036854775000"), 5},
      {"sparse line beyond its capacity", descriptor("monolithicSparse", "RW 256 SPARSE \"small.vmdk\""), 5},
      {"encrypted", descriptor("monolithicFlat", flat, "kxEncAlg=\"aes256cbc\"\n"), 13},
      {"parent without a name", descriptor("monolithicFlat", flat, "", "12345678"), 5},
      {"parent content ID that is no number", descriptor("monolithicFlat", flat, "", "zzzzzzzz"), 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    putText("d.vmdk", c.text);
    test::CLogCapture quiet;
    const kx::CIOError error = test::caught([&] { open("d.vmdk"); }, kx::CIOError(0, ""));
    EXPECT_EQ(error.getCode(), c.code) << error.what();
    EXPECT_FALSE(error.getProps().get("uri").isEmpty()) << error.what();
  }
}

// Other tools write a disk of 0 bytes with no extent lines, or with lines of
// no sectors; the first sparse one still tells grain size and compression.
TEST_F(ForeignDiskTest, EmptyDisksOpen) {
  put("e.vmdk", test::makeStreamOptimizedImage(Bytes()).bytes);
  for (const std::string& text :
       {descriptor("monolithicFlat", ""), descriptor("twoGbMaxExtentSparse", "RW 0 ZERO\nRW 0 SPARSE \"e.vmdk\"")}) {
    SCOPED_TRACE(text);
    putText("d.vmdk", text);
    auto disk = open("d.vmdk");
    EXPECT_EQ(disk->getSizeBytes(), 0);
    EXPECT_EQ(disk->getCompressed(), text.find("SPARSE") != std::string::npos);
    Bytes none;
    disk->read(none.data(), 0);
    EXPECT_FALSE(disk->isGrainWritten());
    kx::TBuffer<unsigned char> data;
    EXPECT_EQ(test::ioErrorCode([&] { disk->readPreparedGrainData(data); }), 3);
  }
}

TEST_F(ForeignDiskTest, FlatFileShorterThanItsLineFailsOnlyBeyondItsEnd) {
  const Bytes data = test::noiseGrain(100 * 512, 3);
  put("short.raw", data);
  putText("d.vmdk", descriptor("monolithicFlat", "RW 300 FLAT \"short.raw\" 0"));
  auto disk = open("d.vmdk");
  Bytes out(100 * 512);
  disk->read(out.data(), static_cast<int>(out.size()));
  EXPECT_TRUE(out == data);
  disk->seek(99 * 512);
  const kx::CIOError error = test::caught([&] { disk->read(out.data(), 1024); }, kx::CIOError(0, ""));
  EXPECT_EQ(error.getCode(), 5);
  EXPECT_EQ(error.getProps().get("uri"), uri("short.raw").toString(true));
  EXPECT_EQ(disk->getPosition(), 99 * 512);
}

TEST_F(ForeignDiskTest, NothingIsEverWritten) {
  const Bytes data = test::textGrain(2 * kGrain, 4);
  put("a.raw", data);
  putText("d.vmdk", descriptor("monolithicFlat", "RW 256 FLAT \"a.raw\" 0"));
  auto disk = open("d.vmdk");
  const kx::CIOError refused = test::caught([&] { disk->write(data.data(), 10); }, kx::CIOError(0, ""));
  EXPECT_EQ(refused.getCode(), 13);
  EXPECT_NE(refused.getMessage().find("convert"), kx::String::npos);
  disk->flushChanges();
  EXPECT_EQ(test::ioErrorCode([&] { disk->seek(-1); }), 7);
  EXPECT_EQ(test::ioErrorCode([&] { disk->seek(2 * kGrain + 1); }), 7);
  disk->seek(2 * kGrain - 10);
  Bytes out(20);
  EXPECT_EQ(test::ioErrorCode([&] { disk->read(out.data(), 20); }), 4);
  EXPECT_EQ(disk->getPosition(), 2 * kGrain - 10);
  EXPECT_THROW(disk->read(out.data(), -1), kx::CInvalidArgError);
  disk->read(out.data(), 10);
  EXPECT_EQ(disk->getPosition(), 2 * kGrain);
  EXPECT_TRUE(test::readFileBytes(*fs_, uri("a.raw")) == data);
}

// This library's disks read alike through both classes, and the two share
// the lock file's rules: readers together, never beside a writer.
TEST_F(ForeignDiskTest, OwnDisksReadAndTheLockIsShared) {
  for (bool compressed : {false, true}) {
    SCOPED_TRACE(compressed);
    Bytes model(kDiskBytes, 0);
    {
      auto own = zarn::CVMDKDisk::create(fs_.get(), uri("own.vmdk"), kDiskBytes, "", compressed, -1, -1, "",
                                         0xFFFFFFFF, false);
      const Bytes data = test::mixedData(300000);
      own->seek(123456);
      own->write(data.data(), static_cast<int>(data.size()));
      std::copy(data.begin(), data.end(), model.begin() + 123456);
      EXPECT_THROW(open("own.vmdk"), kx::CLockFileError);
    }
    auto disk = open("own.vmdk");
    EXPECT_TRUE(readAll(*disk) == model);
    EXPECT_EQ(disk->getCompressed(), compressed);
    EXPECT_EQ(disk->getForeignReason(), "");
    auto reader = kx::create<zarn::CVMDKDisk>(fs_.get(), uri("own.vmdk"), kx::IIOStream::ACCESS_READ);
    EXPECT_THROW(kx::create<zarn::CVMDKDisk>(fs_.get(), uri("own.vmdk"), kx::IIOStream::ACCESS_READ_WRITE),
                 kx::CLockFileError);
  }
}

TEST_F(ForeignDiskTest, ForeignReasons) {
  const Bytes raw = test::mixedData(4 * kGrain);
  test::CStreamImageOptions noFooter;
  noFooter.footer = false;
  Bytes mixedFlags = test::makeStreamOptimizedImage(raw).bytes;
  test::putLE(mixedFlags, 8, 0x00010001, 4);  // compressed, without markers
  const struct {
    const char* name;
    Bytes bytes;
    const char* reason;
  } cases[] = {
      {"directory at the end", test::makeStreamOptimizedImage(raw).bytes, "published stream-optimized layout"},
      {"no footer",
       test::makeStreamOptimizedImage(raw, noFooter).bytes,
       "published stream-optimized layout; no usable grain directory or footer (cut short or damaged)"},
      {"flags that differ", mixedFlags,
       "compression and marker flags that differ; published stream-optimized layout"},
      {"zeroed grains", test::makeZeroedSparseImage(raw, {1}).bytes, "grain table entries of 1 (zeroed grains)"},
  };
  Bytes zeroed = raw;
  std::fill(zeroed.begin() + kGrain, zeroed.begin() + 2 * kGrain, 0);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    put("disk.vmdk", c.bytes);
    test::CLogCapture quiet;
    auto disk = open("disk.vmdk");
    EXPECT_EQ(disk->getForeignReason(), c.reason);
    EXPECT_TRUE(readAll(*disk) == (c.name == std::string("zeroed grains") ? zeroed : raw));
    EXPECT_EQ(disk->getCreateType(), c.name == std::string("zeroed grains") ? "monolithicSparse" : "streamOptimized");
    ASSERT_EQ(disk->getExtentFiles().size(), 1u);
    EXPECT_EQ(disk->getExtentFiles()[0], uri("disk.vmdk"));
  }
}

// flat base <- this library's disk <- stream-optimized top: each grain comes
// from the first disk that holds it, a zero grain hides what lies below.
TEST_F(ForeignDiskTest, ChainOfForeignAndOwnDisks) {
  const Bytes base = test::noiseGrain(kDiskBytes, 5);
  put("base-flat.vmdk", base);
  putText("base.vmdk", descriptor("monolithicFlat", "RW 16384 FLAT \"base-flat.vmdk\" 0"));
  const Bytes middle = test::textGrain(kGrain, 6);
  {
    auto own = zarn::CVMDKDisk::create(fs_.get(), uri("mid.vmdk"), kDiskBytes, "", false, -1, -1, "base.vmdk",
                                       0x0badcafe, false);
    own->seek(kGrain);
    own->write(middle.data(), kGrain);  // whole grains only: the base is no disk it could read
  }
  Bytes top(kDiskBytes, 0);
  const Bytes topGrain = test::textGrain(kGrain, 7);
  std::copy(topGrain.begin(), topGrain.end(), top.begin() + 2 * kGrain);
  test::CStreamImageOptions options;
  options.parentContentID = ownContentID("mid.vmdk");
  options.parentFileName = "mid.vmdk";
  options.fileName = "top.vmdk";
  options.rewrites = {{3, Bytes(kGrain, 0)}};
  put("top.vmdk", test::makeStreamOptimizedImage(top, options).bytes);

  Bytes expected = base;
  std::copy(middle.begin(), middle.end(), expected.begin() + kGrain);
  std::copy(topGrain.begin(), topGrain.end(), expected.begin() + 2 * kGrain);
  std::fill(expected.begin() + 3 * kGrain, expected.begin() + 4 * kGrain, 0);

  auto disk = open("top.vmdk");
  EXPECT_EQ(disk->getParentDiskMainURI(), uri("mid.vmdk"));
  EXPECT_TRUE(readAll(*disk) == expected);
  const std::vector<int> found = depths(*disk);
  EXPECT_EQ(std::vector<int>(found.begin(), found.begin() + 6), (std::vector<int>{2, 1, 0, -1, 2, 2}));
  EXPECT_EQ(disk->getChainDiskURI(0), uri("top.vmdk"));
  EXPECT_EQ(disk->getChainDiskURI(1), uri("mid.vmdk"));
  EXPECT_EQ(disk->getChainDiskURI(2), uri("base.vmdk"));
  EXPECT_THROW(disk->getChainDiskURI(3), kx::CInvalidArgError);

  // Prepared grains of every depth unpack to the bytes read.
  auto preparer = disk->createDataPreparer();
  for (int64_t g = 0; g < 8; ++g) {
    SCOPED_TRACE(g);
    kx::TBuffer<unsigned char> prepared, plain;
    disk->seek(g * kGrain);
    disk->readPreparedGrainData(prepared);
    EXPECT_EQ(disk->getPosition(), (g + 1) * kGrain);
    EXPECT_EQ(prepared.getUsed() % 512, 0u);
    EXPECT_EQ(test::le64(Bytes(prepared.getData(), prepared.getData() + 8), 0), static_cast<uint64_t>(g * 128));
    const auto unpacked = preparer->unprepareGrainData(&prepared, &plain);
    EXPECT_TRUE(std::equal(unpacked->getData(), unpacked->getData() + kGrain, expected.begin() + g * kGrain));
  }
}

TEST_F(ForeignDiskTest, ChainThatCantBeFollowedFailsWhereItIsNeeded) {
  const Bytes raw = test::mixedData(4 * kGrain);  // grain 0 holds nothing
  const auto sparse = [&](const std::string& name, uint32_t cid, uint32_t parentCID, const std::string& parent) {
    put(name, test::makeZeroedSparseImage(raw, {}, 128, name, cid, parentCID, parent).bytes);
  };
  const struct {
    const char* name;
    std::function<void()> make;
    const char* message;
  } cases[] = {
      {"parent changed", [&] { sparse("p.vmdk", 0x22, 0xFFFFFFFF, ""), sparse("c.vmdk", 0x11, 0x23, "p.vmdk"); },
       "has changed"},
      {"parent is the child", [&] { sparse("c.vmdk", 0x11, 0x11, "c.vmdk"); }, "leads back"},
      {"loop of two",
       [&] { sparse("p.vmdk", 0x22, 0x11, "c.vmdk"), sparse("c.vmdk", 0x11, 0x22, "p.vmdk"); }, "leads back"},
      {"parent of no known kind",
       [&] { putText("p.vmdk", descriptor("vmfsSparse", "RW 512 VMFSSPARSE \"x\"")), sparse("c.vmdk", 0x11, 0x0badcafe, "p.vmdk"); },
       "unsupported create type"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.make();
    test::CLogCapture quiet;
    auto disk = open("c.vmdk");
    Bytes grain(kGrain);
    disk->seek(kGrain);
    disk->read(grain.data(), kGrain);  // held by the child itself
    EXPECT_TRUE(std::equal(grain.begin(), grain.end(), raw.begin() + kGrain));
    disk->seek(0);
    const kx::CIOError error = test::caught([&] { disk->read(grain.data(), kGrain); }, kx::CIOError(0, ""));
    EXPECT_EQ(error.getCode(), 5);
    EXPECT_NE(error.getMessage().find(c.message), kx::String::npos) << error.what();
    EXPECT_EQ(test::ioErrorCode([&] { disk->getAllocationDepth(); }), 5);
  }
  sparse("c.vmdk", 0x11, 0x22, "gone.vmdk");
  auto orphan = open("c.vmdk");
  Bytes grain(kGrain);
  EXPECT_THROW(orphan->read(grain.data(), kGrain), kx::CFileSystemError);
}

// Lines that name one file again and again find its grains once: a file
// without footer is scanned, and warned about, a single time.
TEST_F(ForeignDiskTest, ManyLinesNamingOneFileMapItOnce) {
  const Bytes raw = test::noiseGrain(kGrain, 9);
  test::CStreamImageOptions options;
  options.footer = false;
  put("s.vmdk", test::makeStreamOptimizedImage(raw, options).bytes);
  std::string lines;
  for (int i = 0; i < 3000; ++i) lines += "RW 1 SPARSE \"s.vmdk\"\n";
  putText("d.vmdk", descriptor("twoGbMaxExtentSparse", lines));
  test::CLogCapture log;
  auto disk = open("d.vmdk");
  const Bytes all = readAll(*disk);
  for (int i = 0; i < 3000; ++i) ASSERT_TRUE(std::equal(raw.begin(), raw.begin() + 512, all.begin() + i * 512)) << i;
  EXPECT_EQ(log.count(kx::LogLevel::Warning), 1u);
}

// 255 parents are read through; the 256th is taken for a loop in disguise.
TEST_F(ForeignDiskTest, ChainDepthIsBounded) {
  const Bytes data = test::textGrain(kGrain, 8);
  const auto name = [](int i) { return "d" + std::to_string(i) + ".vmdk"; };
  for (int i = 0; i <= 256; ++i) {
    const bool last = i == 256;
    put(name(i), test::makeZeroedSparseImage(last ? data : Bytes(kGrain, 0), {}, 128, name(i), 1000 + i,
                                             last ? 0xFFFFFFFF : 1001 + i, last ? "" : name(i + 1))
                     .bytes);
  }
  Bytes grain(kGrain);
  auto deepest = open(name(1));
  deepest->read(grain.data(), kGrain);
  EXPECT_TRUE(grain == data);
  deepest->seek(0);
  EXPECT_EQ(deepest->getAllocationDepth(), 255);
  auto tooDeep = open(name(0));
  const kx::CIOError error = test::caught([&] { tooDeep->read(grain.data(), kGrain); }, kx::CIOError(0, ""));
  EXPECT_EQ(error.getCode(), 5);
  EXPECT_NE(error.getMessage().find("too deep"), kx::String::npos) << error.what();
}

TEST_F(ForeignDiskTest, PreparedGrainsFollowTheDisksCompression) {
  const Bytes raw = test::mixedData(12 * kGrain + 512);
  test::CStreamImageOptions options;
  options.fileName = "s.vmdk";
  put("s.vmdk", test::makeStreamOptimizedImage(raw, options).bytes);
  put("a.raw", raw);
  putText("flat.vmdk", descriptor("monolithicFlat", "RW 1537 FLAT \"a.raw\" 0"));
  // A second sparse extent names its grains from its own start.
  putText("split.vmdk", descriptor("twoGbMaxExtentSparse", "RW 1536 SPARSE \"s.vmdk\"\nRW 1537 SPARSE \"s.vmdk\""));
  for (const char* name : {"s.vmdk", "flat.vmdk", "split.vmdk"}) {
    SCOPED_TRACE(name);
    auto disk = open(name);
    auto preparer = disk->createDataPreparer();
    const int64_t grains = disk->getSizeBytes() / kGrain;
    std::vector<Bytes> payloads;  // behind the grain address
    for (int64_t g = 0; g < grains; ++g) {
      SCOPED_TRACE(g);
      kx::TBuffer<unsigned char> prepared, aux;
      disk->seek(g * kGrain);
      disk->readPreparedGrainData(prepared);
      payloads.emplace_back(prepared.getData() + 8, prepared.getData() + prepared.getUsed());
      // Stored grains go out as stored, not packed anew, from either extent.
      if (name == std::string("split.vmdk") && g >= 12) {
        EXPECT_TRUE(payloads[g] == payloads[g - 12]);
      }
      const auto plain = preparer->unprepareGrainData(&prepared, &aux);
      ASSERT_EQ(plain->getUsed(), static_cast<size_t>(kGrain));
      Bytes expected(kGrain);
      disk->seek(g * kGrain);
      disk->read(expected.data(), kGrain);
      EXPECT_TRUE(Bytes(plain->getData(), plain->getData() + kGrain) == expected);
      if (disk->getCompressed()) {
        EXPECT_EQ(test::le64(Bytes(prepared.getData(), prepared.getData() + 8), 0), static_cast<uint64_t>(g * 128));
      } else {
        EXPECT_EQ(prepared.getUsed(), static_cast<size_t>(kGrain));
      }
    }
    kx::TBuffer<unsigned char> data;
    disk->seek(512);
    EXPECT_EQ(test::ioErrorCode([&] { disk->readPreparedGrainData(data); }), 11);
    disk->seek(grains * kGrain);  // the last grain is one sector
    EXPECT_EQ(test::ioErrorCode([&] { disk->readPreparedGrainData(data); }), 3);
  }
}

}  // namespace
