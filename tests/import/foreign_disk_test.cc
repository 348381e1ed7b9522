// CVMDKForeignDisk over in-memory files: flat, zero and sparse lines in one
// descriptor, chains whose links are foreign disks and this library's own,
// prepared grains, and the refusals of what can't be read.
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
    return "# Disk DescriptorFile\nCID=0badcafe\nparentCID=" + parentCID + "\ncreateType=\"" + createType + "\"\n" +
           more + "# Extent description\n" + extents + "\nddb.adapterType = \"ide\"\n";
  }
  // The depth of each grain; isGrainWritten must agree.
  static std::vector<int> depths(zarn::CVMDKForeignDisk& disk, int grains) {
    std::vector<int> out;
    for (int g = 0; g < grains; ++g) {
      disk.seek(int64_t{g} * disk.getGrainSizeBytes());
      out.push_back(disk.getAllocationDepth());
      EXPECT_EQ(disk.isGrainWritten(), out.back() >= 0);
    }
    return out;
  }
  static Bytes slice(const Bytes& from, size_t at, size_t size) { return Bytes(&from[at], &from[at] + size); }
  static Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
};

TEST_F(ForeignDiskTest, DescriptorLayoutsRead) {
  const Bytes a = test::noiseGrain(3 * kGrain + 512, 1), b = test::textGrain(64 * 512, 2);
  const Bytes s = test::mixedData(4 * kGrain);  // grain 0 zeros
  put("a.raw", a);
  put("b.raw", b);
  put("s.vmdk", test::makeStreamOptimizedImage(s).bytes);
  test::CImageOptions noFooter, zeroed;
  noFooter.footer = false;
  zeroed.zeroed = {1};
  put("scanned.vmdk", test::makeStreamOptimizedImage(s, noFooter).bytes);
  put("zeroed.vmdk", test::makeZeroedSparseImage(s, zeroed).bytes);
  Bytes flags = test::makeStreamOptimizedImage(s).bytes;
  test::putLE(flags, 8, 0x00010001, 4);  // compressed, without markers
  put("flags.vmdk", flags);
  const std::string flat = "flat extents";
  const struct {
    const char* name;
    std::string text;
    Bytes expected;
    std::vector<int> depths;
    bool compressed;
    std::string reason;
  } cases[] = {
      {"flat at an offset", descriptor("monolithicFlat", "RW 128 FLAT \"a.raw\" 10"), slice(a, 5120, kGrain), {0},
       false, flat},
      {"vmfs", descriptor("vmfs", "RW 128 VMFS \"a.raw\""), slice(a, 0, kGrain), {0}, false, flat},
      {"zero between flat", descriptor("monolithicFlat", "RW 128 FLAT \"a.raw\" 0\nRW 256 ZERO\nRW 64 FLAT \"b.raw\" 0"),
       join({slice(a, 0, kGrain), Bytes(2 * kGrain, 0), b}), {0, -1, -1, 0}, false, flat},
      {"sparse behind flat and zero",
       descriptor("twoGbMaxExtentSparse", "RW 128 FLAT \"a.raw\" 0\nRW 128 ZERO\nRW 512 SPARSE \"s.vmdk\""),
       join({slice(a, 0, kGrain), Bytes(kGrain, 0), s}), {0, -1, -1, 0, 0, 0}, true,
       "flat extents; published stream-optimized layout"},
      {"no lines: 0 bytes", descriptor("monolithicFlat", ""), Bytes(), {}, false, flat},
      {"lines of no sectors", descriptor("streamOptimized", "RW 0 ZERO\nRW 0 SPARSE \"s.vmdk\""), Bytes(), {}, true,
       "flat extents; published stream-optimized layout"},
      {"stream cut short", descriptor("streamOptimized", "RW 512 SPARSE \"scanned.vmdk\""), s, {-1, 0, 0, 0}, true,
       "published stream-optimized layout; no usable grain directory or footer (cut short or damaged)"},
      {"flags that differ", descriptor("streamOptimized", "RW 512 SPARSE \"flags.vmdk\""), s, {-1, 0, 0, 0}, true,
       "compression and marker flags that differ; published stream-optimized layout"},
      {"zeroed grains", descriptor("monolithicSparse", "RW 512 SPARSE \"zeroed.vmdk\""),
       join({slice(s, 0, kGrain), Bytes(kGrain, 0), slice(s, 2 * kGrain, 2 * kGrain)}), {-1, -1, 0, 0}, false,
       "grain table entries of 1 (zeroed grains)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    putText("d.vmdk", c.text);
    test::CLogCapture quiet;
    auto disk = open("d.vmdk");
    EXPECT_TRUE(readAll(*disk) == c.expected);
    EXPECT_EQ(disk->getGrainSizeBytes(), kGrain);
    EXPECT_EQ(disk->getCompressed(), c.compressed);
    EXPECT_EQ(depths(*disk, static_cast<int>(c.depths.size())), c.depths);
    EXPECT_EQ(disk->getForeignReason(), c.reason);
    EXPECT_TRUE(disk->getParentDiskMainURI().isEmpty());
    for (const kx::CURI& file : disk->getExtentFiles()) EXPECT_TRUE(fs_->fileExists(file)) << file.toString(true);
  }
}

TEST_F(ForeignDiskTest, DescriptorThatCantBeReadIsRefused) {
  put("a.raw", test::noiseGrain(kGrain, 1));
  put("small.vmdk", test::makeZeroedSparseImage(test::noiseGrain(kGrain, 2)).bytes);
  const std::string flat = "RW 128 FLAT \"a.raw\" 0";
  const struct {
    const char* name;
    std::string text;
    int code;
  } cases[] = {
      {"unknown create type", descriptor("vmfsSparse", flat), 5},
      {"no create type", "CID=1\n" + flat + "\n", 5},
      {"unknown extent type", descriptor("vmfs", "RW 128 VMFSSPARSE \"a.raw\""), 5},
      {"extent beyond any disk", descriptor("monolithicFlat", "RW 9223372036854775000 FLAT \"a.raw\" 0"), 5},
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
    const kx::CIOError error = test::caught([&] { open("d.vmdk"); }, kx::CIOError(0, ""));
    EXPECT_EQ(error.getCode(), c.code) << error.what();
    EXPECT_FALSE(error.getProps().get("uri").isEmpty()) << error.what();
  }
}

TEST_F(ForeignDiskTest, NothingIsWrittenAndRangesAreChecked) {
  const Bytes data = test::textGrain(100 * 512, 4);
  put("short.raw", data);
  putText("d.vmdk", descriptor("monolithicFlat", "RW 300 FLAT \"short.raw\" 0"));
  auto disk = open("d.vmdk");
  const kx::CIOError refused = test::caught([&] { disk->write(data.data(), 10); }, kx::CIOError(0, ""));
  EXPECT_EQ(refused.getCode(), 13);
  EXPECT_NE(refused.getMessage().find("convert"), kx::String::npos);
  EXPECT_EQ(test::ioErrorCode([&] { disk->seek(300 * 512 + 1); }), 7);
  Bytes out(1024);
  disk->seek(300 * 512 - 10);
  EXPECT_EQ(test::ioErrorCode([&] { disk->read(out.data(), 20); }), 4);
  // The flat file ends at sector 100: reads up to there work, past it fail.
  disk->seek(99 * 512);
  const kx::CIOError error = test::caught([&] { disk->read(out.data(), 1024); }, kx::CIOError(0, ""));
  EXPECT_EQ(error.getCode(), 5);
  EXPECT_EQ(error.getProps().get("uri"), uri("short.raw").toString(true));
  EXPECT_EQ(disk->getPosition(), 99 * 512);
  disk->read(out.data(), 512);
  EXPECT_TRUE(std::equal(out.begin(), out.begin() + 512, data.end() - 512));
  EXPECT_TRUE(test::readFileBytes(*fs_, uri("short.raw")) == data);
}

// This library's disks read alike; readers share the lock, never with a writer.
TEST_F(ForeignDiskTest, OwnDisksReadUnderTheSharedLock) {
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
    EXPECT_EQ(disk->getForeignReason(), "");
    auto reader = kx::create<zarn::CVMDKDisk>(fs_.get(), uri("own.vmdk"), kx::IIOStream::ACCESS_READ);
    EXPECT_THROW(kx::create<zarn::CVMDKDisk>(fs_.get(), uri("own.vmdk"), kx::IIOStream::ACCESS_READ_WRITE),
                 kx::CLockFileError);
  }
}

// flat base <- this library's disk <- stream-optimized top: each grain comes
// from the first disk that holds it; a zero grain hides what lies below.
TEST_F(ForeignDiskTest, ChainOfForeignAndOwnDisks) {
  const Bytes base = test::noiseGrain(kDiskBytes, 5), middle = test::textGrain(kGrain, 6);
  put("base-flat.vmdk", base);
  putText("base.vmdk", descriptor("monolithicFlat", "RW 16384 FLAT \"base-flat.vmdk\" 0"));
  {
    auto own = zarn::CVMDKDisk::create(fs_.get(), uri("mid.vmdk"), kDiskBytes, "", false, -1, -1, "base.vmdk",
                                       0x0badcafe, false);
    own->seek(kGrain);
    own->write(middle.data(), kGrain);  // a whole grain: the base is no disk it could read
  }
  Bytes top(kDiskBytes, 0);
  std::fill(top.begin() + 2 * kGrain, top.begin() + 3 * kGrain, 0x77);
  test::CImageOptions options;
  options.fileName = "top.vmdk";
  options.parentFileName = "mid.vmdk";
  options.parentContentID =
      kx::create<zarn::CVMDKDisk>(fs_.get(), uri("mid.vmdk"), kx::IIOStream::ACCESS_READ)->getDescriptor()->getContentID();
  options.rewrites = {{3, Bytes(kGrain, 0)}};
  put("top.vmdk", test::makeStreamOptimizedImage(top, options).bytes);
  const Bytes expected = join({slice(base, 0, kGrain), middle, slice(top, 2 * kGrain, 2 * kGrain),
                               slice(base, 4 * kGrain, kDiskBytes - 4 * kGrain)});

  auto disk = open("top.vmdk");
  EXPECT_EQ(disk->getParentDiskMainURI(), uri("mid.vmdk"));
  EXPECT_TRUE(readAll(*disk) == expected);
  EXPECT_EQ(depths(*disk, 5), (std::vector<int>{2, 1, 0, -1, 2}));
  EXPECT_EQ(disk->getChainDiskURI(2), uri("base.vmdk"));
  EXPECT_THROW(disk->getChainDiskURI(3), kx::CInvalidArgError);
  auto preparer = disk->createDataPreparer();
  for (int64_t g = 0; g < 5; ++g) {
    kx::TBuffer<unsigned char> prepared, plain;
    disk->seek(g * kGrain);
    disk->readPreparedGrainData(prepared);
    EXPECT_EQ(test::le64(Bytes(prepared.getData(), prepared.getData() + 8), 0), static_cast<uint64_t>(g * 128));
    const auto unpacked = preparer->unprepareGrainData(&prepared, &plain);
    EXPECT_TRUE(std::equal(unpacked->getData(), unpacked->getData() + kGrain, expected.begin() + g * kGrain)) << g;
  }
}

TEST_F(ForeignDiskTest, ChainThatCantBeFollowedFailsWhereItIsNeeded) {
  const Bytes raw = test::mixedData(4 * kGrain);  // grain 0 holds nothing
  const auto sparse = [&](const std::string& name, uint32_t cid, uint32_t parentCID, const std::string& parent) {
    test::CImageOptions o;
    o.fileName = name, o.contentID = cid, o.parentContentID = parentCID, o.parentFileName = parent;
    put(name, test::makeZeroedSparseImage(raw, o).bytes);
  };
  const struct {
    const char* name;
    std::function<void()> make;
    const char* message;
  } cases[] = {
      {"parent changed", [&] { sparse("p.vmdk", 0x22, 0xFFFFFFFF, ""), sparse("c.vmdk", 0x11, 0x23, "p.vmdk"); },
       "has changed"},
      {"parent is the child", [&] { sparse("c.vmdk", 0x11, 0x11, "c.vmdk"); }, "leads back"},
      {"loop of two", [&] { sparse("p.vmdk", 0x22, 0x11, "c.vmdk"), sparse("c.vmdk", 0x11, 0x22, "p.vmdk"); },
       "leads back"},
      {"parent of no known kind",
       [&] { putText("p.vmdk", descriptor("vmfsSparse", "")), sparse("c.vmdk", 0x11, 0x0badcafe, "p.vmdk"); },
       "unsupported create type"},
  };
  Bytes grain(kGrain);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.make();
    test::CLogCapture quiet;
    auto disk = open("c.vmdk");
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
  EXPECT_THROW(open("c.vmdk")->read(grain.data(), kGrain), kx::CFileSystemError);

  // 255 parents are read through; a 256th is taken for a loop in disguise.
  const auto name = [](int i) { return "d" + std::to_string(i) + ".vmdk"; };
  const Bytes data = test::textGrain(kGrain, 8);
  for (int i = 0; i <= 256; ++i) {
    test::CImageOptions o;
    o.fileName = name(i), o.contentID = 1000 + i;
    if (i < 256) o.parentContentID = 1001 + i, o.parentFileName = name(i + 1);
    put(name(i), test::makeZeroedSparseImage(i == 256 ? data : Bytes(kGrain, 0), o).bytes);
  }
  auto deepest = open(name(1));
  EXPECT_EQ(deepest->getAllocationDepth(), 255);
  EXPECT_TRUE(readAll(*deepest) == data);
  EXPECT_EQ(test::ioErrorCode([&] { open(name(0))->read(grain.data(), kGrain); }), 5);
}

// Grains in prepared form unpack to the bytes read; compressed grains go out
// as stored, with this disk's grain address, also from a second extent.
TEST_F(ForeignDiskTest, PreparedGrainsFollowTheDisksCompression) {
  const Bytes raw = test::mixedData(12 * kGrain + 512);
  test::CImageOptions options;
  options.fileName = "s.vmdk";
  put("s.vmdk", test::makeStreamOptimizedImage(raw, options).bytes);
  put("a.raw", raw);
  putText("flat.vmdk", descriptor("monolithicFlat", "RW 1537 FLAT \"a.raw\" 0"));
  putText("split.vmdk", descriptor("twoGbMaxExtentSparse", "RW 1536 SPARSE \"s.vmdk\"\nRW 1537 SPARSE \"s.vmdk\""));
  for (const char* name : {"s.vmdk", "flat.vmdk", "split.vmdk"}) {
    SCOPED_TRACE(name);
    auto disk = open(name);
    auto preparer = disk->createDataPreparer();
    const Bytes all = readAll(*disk);
    const int64_t grains = disk->getSizeBytes() / kGrain;
    std::vector<Bytes> payloads;  // behind the grain address
    for (int64_t g = 0; g < grains; ++g) {
      kx::TBuffer<unsigned char> prepared, aux;
      disk->seek(g * kGrain);
      disk->readPreparedGrainData(prepared);
      EXPECT_EQ(disk->getPosition(), (g + 1) * kGrain);
      const auto plain = preparer->unprepareGrainData(&prepared, &aux);
      EXPECT_TRUE(std::equal(plain->getData(), plain->getData() + kGrain, all.begin() + g * kGrain)) << g;
      if (!disk->getCompressed()) continue;
      EXPECT_EQ(test::le64(Bytes(prepared.getData(), prepared.getData() + 8), 0), static_cast<uint64_t>(g * 128));
      payloads.emplace_back(prepared.getData() + 8, prepared.getData() + prepared.getUsed());
      if (g >= 12) {
        EXPECT_TRUE(payloads[g] == payloads[g - 12]) << g;  // not packed anew
      }
    }
    kx::TBuffer<unsigned char> data;
    disk->seek(512);
    EXPECT_EQ(test::ioErrorCode([&] { disk->readPreparedGrainData(data); }), 11);
    disk->seek(grains * kGrain);  // the last grain is one sector
    EXPECT_EQ(test::ioErrorCode([&] { disk->readPreparedGrainData(data); }), 3);
  }
}

// Lines that name one file again and again find its grains once: a file
// without footer is scanned, and warned about, a single time.
TEST_F(ForeignDiskTest, ManyLinesNamingOneFileMapItOnce) {
  const Bytes raw = test::noiseGrain(kGrain, 9);
  test::CImageOptions options;
  options.footer = false, options.fileName = "s.vmdk";
  put("s.vmdk", test::makeStreamOptimizedImage(raw, options).bytes);
  std::string lines;
  for (int i = 0; i < 3000; ++i) lines += "RW 1 SPARSE \"s.vmdk\"\n";
  putText("d.vmdk", descriptor("twoGbMaxExtentSparse", lines));
  test::CLogCapture log;
  const Bytes all = readAll(*open("d.vmdk"));
  for (int i = 0; i < 3000; ++i) ASSERT_TRUE(std::equal(raw.begin(), raw.begin() + 512, all.begin() + i * 512)) << i;
  EXPECT_EQ(log.count(kx::LogLevel::Warning), 1u);
}

}  // namespace
