#include "zarn/descriptor_accessor.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "kx/buffer_stream.h"
#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/log_capture.h"

namespace {

using zarn::CVMDKDescriptorAccessor;
using Bytes = std::vector<unsigned char>;

const char kURI[] = "file:///vm/disk.vmdk";

// The sanitizers multiply time and hold freed memory back.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif
constexpr size_t kDescriptorOffset = 512;
constexpr size_t kDescriptorArea = 20 * 512;
constexpr auto kRead = kx::IIOStream::ACCESS_READ;
constexpr auto kReadWrite = kx::IIOStream::ACCESS_READ_WRITE;

std::string readTestFile(const std::string& name) {
  std::ifstream in(std::string(ZARN_TESTDATA_DIR) + "/descriptors/" + name, std::ios::binary);
  EXPECT_TRUE(in.good()) << name;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes toBytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

kx::P<kx::CBufferStream> makeStream(const Bytes& bytes, int64_t position) {
  auto buffer = kx::create<kx::TBuffer<unsigned char>>();
  buffer->assign(bytes.data(), bytes.size());
  auto stream = kx::create<kx::CBufferStream>(buffer, 2.0, kx::CURI(kx::String(kURI)));
  stream->seek(position);
  return stream;
}

Bytes contentOf(kx::CBufferStream& stream) {
  const auto& buffer = stream.getBuffer();
  return Bytes(buffer->getData(), buffer->getData() + buffer->getUsed());
}

// A sparse extent: the header (only the fields that the accessor reads), the
// descriptor area from sector 1 on, then metadata that must stay untouched.
Bytes makeSparseExtent(const std::string& descriptor, uint32_t magic = 0x564D444B, uint32_t version = 1,
                       uint64_t offsetSectors = 1, uint64_t sizeSectors = 20) {
  Bytes file(kDescriptorOffset + kDescriptorArea + 1024, 0xEE);
  std::fill(file.begin(), file.begin() + kDescriptorOffset + kDescriptorArea, 0);
  const uint64_t fields[][3] = {{0, magic, 4}, {4, version, 4}, {28, offsetSectors, 8}, {36, sizeSectors, 8}};
  for (const auto& [at, value, width] : fields) test::putLE(file, at, value, static_cast<int>(width));
  std::copy(descriptor.begin(), descriptor.end(), file.begin() + kDescriptorOffset);
  return file;
}

// The message of the kx::CError that `fn` raises, checked for `code`.
std::string errorOf(const std::function<void()>& fn, int code, bool namesTheFile = false) {
  const kx::CError e = test::caught(fn, kx::CError("nothing raised"));
  EXPECT_EQ(e.getCode(), code);
  EXPECT_TRUE(!namesTheFile || e.getProps().get("uri") == kURI);
  return e.getMessage().toUTF8();
}

TEST(DescriptorAccessorTest, EmbeddedDescriptorIsReadChangedAndStoredInItsArea) {
  const Bytes original = makeSparseExtent(readTestFile("monolithic_sparse_embedded.txt"));
  kx::P<kx::CBufferStream> stream = makeStream(original, 1000);
  auto accessor = kx::create<CVMDKDescriptorAccessor>(stream.get(), kReadWrite);
  EXPECT_EQ(stream->getPosition(), 1000);
  EXPECT_TRUE(accessor->getEmbeddedInSparseExtentFile());
  kx::P<zarn::CVMDKDescriptor> descriptor = accessor->getDescriptor();
  EXPECT_EQ(descriptor->getContentID(), 0xfffffffeu);
  // New content IDs are fresh; nothing is written before the store.
  for (int i = 0; i < 2; ++i) {
    const uint32_t previous = descriptor->getContentID();
    const uint32_t drawn = accessor->changeContentID();
    EXPECT_NE(drawn, previous);
    EXPECT_EQ(descriptor->getContentID(), drawn);
  }
  EXPECT_EQ(contentOf(*stream), original);

  descriptor->setContentID(0x1a2b3c4d);
  descriptor->setAdapterType("lsilogic");
  accessor->storeDescriptor(true);
  EXPECT_EQ(stream->getPosition(), 1000);
  const std::string expected = readTestFile("monolithic_sparse_embedded.expected");
  Bytes wanted = original;
  std::fill(wanted.begin() + kDescriptorOffset, wanted.begin() + kDescriptorOffset + kDescriptorArea, 0);
  std::copy(expected.begin(), expected.end(), wanted.begin() + kDescriptorOffset);
  EXPECT_EQ(contentOf(*stream), wanted);
}

TEST(DescriptorAccessorTest, HeaderDecidesWhereTheDescriptorIs) {
  const char* const noDescriptor = "No VMDK descriptor found in VMDK file.";
  const struct {
    uint32_t magic, version;
    uint64_t offsetSectors, sizeSectors;
    int code;  // 0: opens
    const char* message;
  } cases[] = {
      {0x564D444B, 3, 1, 20, 0, ""},
      {0x05644B45, 1, 1, 20, 0, ""},
      {0x564D444B, 0, 1, 20, 6, "VMDK file has an unsupported version: 0"},
      {0x564D444B, 4, 1, 20, 6, "VMDK file has an unsupported version: 4"},
      {0x564D444B, 1, 0, 20, 5, noDescriptor},
      {0x564D444B, 1, 1, 0, 5, noDescriptor},
      {0x564D444B, 1, 1, 10241, 5, "VMDK descriptor is too big (5243392 bytes)."},
      // The file is 23 sectors: the area may end at its end, not behind it.
      {0x564D444B, 1, 1, 22, 0, ""},
      {0x564D444B, 1, 1, 23, 5, "VMDK descriptor area lies beyond the end of the file."},
      // 2^55 + 1 sectors are 512 bytes once wrapped round 64 bits (bit 279
      // of the header flipped).
      {0x564D444B, 1, 0x0080000000000001ULL, 20, 5, "VMDK descriptor area lies beyond the end of the file."},
      {0x564D444B, 1, 1, 0x0080000000000001ULL, 5, "VMDK descriptor is too big (36028797018963969 sectors)."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.version << " " << c.sizeSectors);
    auto stream =
        makeStream(makeSparseExtent("a=1\n", c.magic, c.version, c.offsetSectors, c.sizeSectors), 1000);
    if (c.code == 0) {
      EXPECT_EQ(CVMDKDescriptorAccessor(stream.get(), kRead).getDescriptor()->getValue("a"), "1");
    } else {
      EXPECT_EQ(errorOf([&] { CVMDKDescriptorAccessor(stream.get(), kRead); }, c.code, true), c.message);
    }
    EXPECT_EQ(stream->getPosition(), 1000);
  }
}

TEST(DescriptorAccessorTest, DescriptorFileIsTheWholeFileOfUpToFiveMiB) {
  const std::string text = readTestFile("two_gb_max_extent_sparse.vmdk");
  kx::P<kx::CBufferStream> stream = makeStream(toBytes(text), 100);
  test::CLogCapture log;
  auto accessor = kx::create<CVMDKDescriptorAccessor>(stream.get(), kReadWrite);
  EXPECT_FALSE(accessor->getEmbeddedInSparseExtentFile());
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].level, kx::LogLevel::Info);
  EXPECT_EQ(log.lines[0].text,  // "# Di" as a little-endian word
            "Unsupported VMDK type identifier (0x69442023). Handle as not embedded descriptor...");

  // Same length of text: the file is rewritten without padding.
  accessor->getDescriptor()->setContentID(0x12345678);
  accessor->storeDescriptor(false);
  std::string expected = text;
  expected.replace(expected.find("CID=3f1c2a7b"), 12, "CID=12345678");
  EXPECT_EQ(contentOf(*stream), toBytes(expected));
  EXPECT_EQ(stream->getPosition(), 100);
  // Shorter: zeros fill the rest, and a new accessor stops reading at them.
  accessor->getDescriptor()->setContentID(0x1);
  accessor->storeDescriptor(true);
  expected.replace(expected.find("CID=12345678"), 12, "CID=1");
  EXPECT_EQ(contentOf(*stream), toBytes(expected + std::string(7, '\0')));
  EXPECT_EQ(CVMDKDescriptorAccessor(stream.get(), kRead).getDescriptor()->toString().toUTF8(), expected);

  // The last line ends at the limit, so seeing it proves the whole file was read.
  std::string big(0x500000 - 7, '#');
  for (size_t i = 79; i < big.size(); i += 80) big[i] = '\n';
  big.back() = '\n';
  big += "last=1\n";
  EXPECT_EQ(
      CVMDKDescriptorAccessor(makeStream(toBytes(big), 0).get(), kRead).getDescriptor()->getValue("last"),
      "1");
  stream = makeStream(toBytes(big + "\n"), 1000);
  EXPECT_EQ(errorOf([&] { CVMDKDescriptorAccessor(stream.get(), kRead); }, 5, true),
            "VMDK descriptor is too big (5242881 bytes).");
}

TEST(DescriptorAccessorTest, RefusedChangesLeaveFileAndPositionAlone) {
  const Bytes original = makeSparseExtent("CID=1\n");
  kx::P<kx::CBufferStream> stream = makeStream(original, 30);
  auto readOnly = kx::create<CVMDKDescriptorAccessor>(stream.get(), kRead);
  EXPECT_EQ(
      errorOf([&] { readOnly->changeContentID(); }, -1),
      "Internal error: CVMDKDescriptorAccessor::changeContentID was called, but the accessor was not opened "
      "for writing.");
  EXPECT_EQ(
      errorOf([&] { readOnly->storeDescriptor(false); }, -1),
      "Internal error: CVMDKDescriptorAccessor::storeDescriptor was called, but the accessor was not opened "
      "for writing.");
  EXPECT_EQ(readOnly->getDescriptor()->getContentID(), 1u);
  EXPECT_EQ(contentOf(*stream), original);
  EXPECT_EQ(stream->getPosition(), 30);

  // A descriptor file without room even for the encoding line that store adds.
  const Bytes full = toBytes("# Disk DescriptorFile\nCID=1\n" + std::string(10, '\0'));
  stream = makeStream(full, 30);
  auto writable = kx::create<CVMDKDescriptorAccessor>(stream.get(), kReadWrite);
  EXPECT_EQ(
      errorOf([&] { writable->storeDescriptor(true); }, -1),
      "Internal error: actual VMDK descriptor size exceeds target size (actual size: 45, target size: 38)");
  EXPECT_EQ(contentOf(*stream), full);
  EXPECT_EQ(stream->getPosition(), 30);
}

TEST(DescriptorAccessorTest, StreamFailuresPassThroughAndLeaveThePosition) {
  // Every read, seek, write and flush of opening and of a store fails once in
  // turn; the stream's own error must come out unchanged and the stream must
  // be back where the caller had it. Both kinds of file are walked.
  const std::string text = readTestFile("monolithic_sparse_embedded.txt");
  const Bytes files[] = {makeSparseExtent(text), toBytes(text + std::string(200, '\0'))};
  const test::FileOp ops[] = {test::FileOp::Read, test::FileOp::Seek, test::FileOp::Write,
                              test::FileOp::Flush};
  for (const Bytes& file : files) {
    for (const test::FileOp op : ops) {
      for (int n = 1;; ++n) {
        SCOPED_TRACE(testing::Message() << test::getFileOpName(op) << " " << n << " of " << file.size());
        auto memory = kx::create<kx::CMemoryFileSystem>();
        auto faulty = kx::create<test::CFaultInjectionFileSystem>(memory);
        const kx::CURI uri{kx::String(kURI)};
        test::writeFileBytes(*faulty, uri, file);
        int flags = 0;
        kx::P<kx::IIOStream> stream = faulty->openFile(uri, kx::IIOStream::ACCESS_READ_WRITE, flags);
        stream->seek(77);
        faulty->failNth(op, n);
        try {
          auto accessor = kx::create<CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ_WRITE);
          EXPECT_EQ(stream->getPosition(), 77);
          accessor->getDescriptor()->setContentID(0x12345678);
          accessor->storeDescriptor(true);
        } catch (const kx::CFileSystemError& error) {
          EXPECT_EQ(error.getMessage(), "Injected fault");
        }
        EXPECT_EQ(stream->getPosition(), 77);
        if (faulty->getFaultCount() == 0) break;
      }
    }
  }
}


// Load and store cost time and memory by the byte, whatever the shape of the
// lines: 5 MiB of the shortest lines of each kind (millions of them) go
// through in well under a second, and with every line as an entry object in
// well under 256 MiB.
TEST(DescriptorAccessorTest, FiveMiBOfShortLinesLoadAndStoreInLinearTime) {
  const std::string units[] = {"\n", "a\n", "a=1\n", "a 1 b \"\"\n", "\na=\n#\n"};
  const auto peakKiB = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
  };
  const long before = peakKiB();
  for (const std::string& unit : units) {
    SCOPED_TRACE(testing::PrintToString(unit));
    // Room is left for the encoding line that a store adds.
    auto bytes = kx::create<kx::TBuffer<unsigned char>>(0x500000);
    std::memset(bytes->getData(), 0, bytes->getUsed());
    for (size_t at = 0; at + unit.size() <= bytes->getUsed() - 64; at += unit.size()) {
      std::memcpy(bytes->getData() + at, unit.data(), unit.size());
    }
    auto stream = kx::create<kx::CBufferStream>(bytes, 2.0, kx::CURI(kx::String(kURI)));
    const auto start = std::chrono::steady_clock::now();
    test::CLogCapture quiet;
    auto accessor = kx::create<CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ_WRITE);
    accessor->storeDescriptor(false);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    EXPECT_GT(accessor->getDescriptor()->getEntries().size(), 500000u);
    // Linear work takes 0.05-0.25 s here; the quadratic kind took minutes.
    // The margin keeps a busy machine from failing the test.
    if (!kSanitized) {
      EXPECT_LT(took.count(), 5.0);
    }
  }
  if (!kSanitized) {
    EXPECT_LT(peakKiB() - before, 256 * 1024);
  }
}

}  // namespace
