#include "zarn/sparse_extent_file.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/grain_stack.h"
#include "tests/support/stream_wrapper.h"
#include "zarn/low_level_file_stream.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int kGrain = 65536;

// Records where writes land and when the stream below the buffering is flushed.
class CRecordingStream final : public test::CStreamWrapper {
 public:
  using CStreamWrapper::CStreamWrapper;
  void write(const void* data, int size, kx::IWriteBarrier* barrier) override {
    events.push_back(getPosition());
    CStreamWrapper::write(data, size, barrier);
  }
  void writeKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data, kx::IWriteBarrier* barrier) override {
    events.push_back(getPosition());
    CStreamWrapper::writeKeepBuffer(data, barrier);
  }
  void flush() override {
    events.push_back(-1);
    CStreamWrapper::flush();
  }
  std::vector<int64_t> events;  // write positions; -1 for a flush
};

const kx::CURI kDescriptorURI(kx::String("file:///d.vmdk"));

class SparseExtentFileTest : public ::testing::Test {
 protected:
  // Extents change only with a content ID updater; this one keeps its
  // content ID in a descriptor file of its own.
  void SetUp() override {
    Bytes text{'C', 'I', 'D', '=', '1', '\n'};
    text.resize(512, 0);
    test::writeFileBytes(*fs_, kDescriptorURI, text);
    updater_ = kx::create<zarn::CVMDKContentIDUpdater>(fs_.get(), kDescriptorURI,
                                                       kx::create<zarn::CVMDKDescriptor>().get());
  }
  void make(bool compressed, bool encrypted = false, int64_t grains = 64) {
    test::GrainStackOptions o;
    o.compressed = compressed;
    o.encrypted = encrypted;
    o.grainCount = grains;
    fs_->deleteFile(uri_, true);
    test::CGrainStack made(*fs_, uri_, o);
  }
  kx::P<zarn::CVMDKSparseExtentFile> open(kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE,
                                          bool encrypted = false,
                                          const kx::TCryptBuffer<unsigned char>& key = test::CGrainStack::testKey()) {
    if (!stream_) stream_ = zarn::openVMDKFileStream(fs_.get(), uri_, access);
    auto cipher = encrypted ? kx::P<brix::ICipher>(kx::create<brix::CCipher_AES256CBC>()) : nullptr;
    auto extent = kx::create<zarn::CVMDKSparseExtentFile>(stream_.get(), access, 0, -1, cache_.get(), nullptr,
                                                          updater_.get(), cipher.get(), key,
                                                          test::CGrainStack::testBaseIV());
    stream_ = nullptr;
    return extent;
  }
  Bytes file() { return test::readFileBytes(*fs_, uri_); }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///e.vmdk")};
  kx::P<zarn::CVMDKGrainTableCache> cache_ = kx::create<zarn::CVMDKGrainTableCache>();
  kx::P<zarn::CVMDKContentIDUpdater> updater_;
  kx::P<kx::IIOStream> stream_;  // when set, the next open() takes it instead of opening the file
};

TEST_F(SparseExtentFileTest, OpeningRefusesEachBadHeaderWithItsOwnError) {
  struct Case {
    const char* name;
    bool compressed, encrypted;
    std::function<void(Bytes&)> damage;
    int keySize;  // of the key handed in; 32 is the right size
    bool wrongKey;
    const char* message;
  };
  const auto put = [](size_t at, uint64_t value, int width) {
    return [=](Bytes& f) { test::putLE(f, at, value, width); };
  };
  const Case cases[] = {
      {"wrong key", false, true, nullptr, 32, true, "Specified VMDK extent file encryption key is not correct."},
      {"wrong key size first", false, true, put(79, 7, 2), 16, false,
       "Specified encryption key has an incorrect size for the cipher"},
      {"algorithm", false, true, put(79, 2, 2), 32, false, "Unsupported encryption algorithm used by VMDK extent file: 2"},
      {"key hash algorithm", false, true, put(81, 9, 2), 32, false, "Unsupported key hash algorithm used in VMDK: 9"},
      {"key before version", false, true, put(4, 4, 4), 32, true, "Specified VMDK extent file encryption key is not correct."},
      {"version", false, false, put(4, 4, 4), 32, false, "VMDK file has an unsupported version: 4"},
      {"flags", false, false, put(8, 0x10003, 4), 32, false,
       "VMDK flags 'compressed' and 'metaMarkers' are different (compressed: true, metaMarkers: false)."},
      {"directory at the end", true, false, put(56, UINT64_MAX, 8), 32, false,
       "VMDK file uses an unsupported variant of the 'stream optimized' format."},
      {"no slot directory", true, false, [](Bytes& f) { std::fill_n(f.begin() + 15 * 512, 512, 0); }, 32, false,
       "Slot size directory not found in compressed VMDK."},
      {"grain size 0", false, false, put(20, 0, 8), 32, false, "VMDK file has an invalid grain size: 0"},
      {"grain size 2^40", false, false, put(20, uint64_t{1} << 40, 8), 32, false,
       "VMDK file has an invalid grain size: 1099511627776"},
      {"no entries", false, false, put(44, 0, 4), 32, false, "VMDK file has an invalid number of grain table entries: 0"},
      {"billions of entries", false, false, put(44, 3000000000u, 4), 32, false,
       "VMDK file has an invalid number of grain table entries: 3000000000"},
      {"capacity 2^62", false, false, put(12, uint64_t{1} << 62, 8), 32, false,
       "VMDK file has an invalid capacity: 4611686018427387904"},
      {"capacity beyond the file", false, false, put(12, uint64_t{1} << 40, 8), 32, false,
       "VMDK grain directory lies beyond the end of the file."},
      {"directory in the header", false, false, put(56, 0, 8), 32, false, "VMDK file has an invalid grain directory offset: 0"},
      {"directory past the end", false, false, put(56, 1 << 20, 8), 32, false,
       "VMDK file has an invalid grain directory offset: 1048576"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs_->deleteFile(uri_, true);
    make(c.compressed, c.encrypted);
    Bytes bytes = file();
    if (c.damage) c.damage(bytes);
    test::writeFileBytes(*fs_, uri_, bytes);
    kx::TCryptBuffer<unsigned char> key = test::CGrainStack::testKey();
    key.setUsed(static_cast<size_t>(c.keySize));
    if (c.wrongKey) key.getData()[0] ^= 1;
    const kx::CError error = test::caught([&] { open(kx::IIOStream::ACCESS_READ_WRITE, c.encrypted, key); },
                                          kx::CError("none"));
    EXPECT_EQ(error.getMessage(), c.message);
    EXPECT_EQ(error.getProps().get("uri"), "file:///e.vmdk");
    stream_ = nullptr;
    EXPECT_EQ(file(), bytes) << "opening wrote to the file";
  }
  make(false, false);
  EXPECT_THROW(open(kx::IIOStream::ACCESS_READ, true), kx::CInvalidArgError);  // a cipher for a plain extent
}

TEST_F(SparseExtentFileTest, RangeErrorsMoveNothing) {
  make(false, false, 4);
  updater_ = nullptr;
  auto extent = open();
  kx::TBuffer<unsigned char> prepared;
  Bytes buffer(2);
  const struct {
    int64_t at;
    std::function<void()> op;
    int code;
    const char* message;
  } cases[] = {
      {4 * kGrain - 1, [&] { extent->read(buffer.data(), 2); }, 4,
       "Unexpected end of data reading from VMDK sparse extent file."},
      {4 * kGrain - 1, [&] { extent->write(buffer.data(), 2); }, 3, "Write exceeded VMDK extent size."},
      {1, [&] { extent->readPreparedGrainData(prepared); }, 11,
       "Prepared grain read in VMDK extent file can only be done on a grain boundary."},
      {4 * kGrain, [&] { extent->readPreparedGrainData(prepared); }, 3, "Prepared grain read exceeds VMDK extent size."},
      {kGrain, [&] { extent->writePreparedGrainData(prepared); }, -1,
       "Internal error: VMDK sparse extent file is about to be changed, but it does not have a content ID updater."},
      {0, [&] { extent->seek(4 * kGrain + 1); }, -1, "Invalid position: 262145"},
  };
  for (const auto& c : cases) {
    extent->seek(c.at);
    const kx::CError error = test::caught(c.op, kx::CError("none", "", 0));
    EXPECT_EQ(error.getCode(), c.code) << c.message;
    EXPECT_EQ(error.getMessage(), c.message);
    EXPECT_EQ(extent->getPosition(), c.at) << c.message;
  }
  extent->seek(4 * kGrain);
  extent->read(buffer.data(), 0);  // at the very end, nothing to read is fine
}

TEST_F(SparseExtentFileTest, GrainDataReachesTheFileBeforeTheTablesThatPointAtIt) {
  // Also when tables leave a tiny cache in the middle of the work.
  for (int32_t cacheLimit : {1024, 1}) {
    for (bool compressed : {false, true}) {
      SCOPED_TRACE(std::to_string(cacheLimit) + (compressed ? " compressed" : " plain"));
      make(compressed, false, 1100);  // three tables
      const auto overheadBytes = static_cast<int64_t>(test::le64(file(), 64)) * 512;
      int flags = 0;
      auto recorder = kx::create<CRecordingStream>(fs_->openFile(uri_, kx::IIOStream::ACCESS_READ_WRITE, flags));
      stream_ = kx::create<kx::COptimizingIOStream>(kx::P<kx::IIOStream>(recorder));
      cache_ = kx::create<zarn::CVMDKGrainTableCache>(cacheLimit);
      auto extent = open();
      const Bytes data = test::noiseGrain(kGrain, 2);
      for (int round = 0; round < 3; ++round) {
        for (int64_t grain : {0, 600, 1090, 1}) {
          extent->seek((grain + round * 2) * kGrain);
          extent->write(data.data(), kGrain);
        }
        extent->flushChanges();
      }
      extent = nullptr;
      // Each table write must follow a flush that follows every data write before it.
      const auto& events = recorder->events;
      int tableWrites = 0;
      for (size_t i = 0; i < events.size(); ++i) {
        if (events[i] < 0 || events[i] >= overheadBytes) continue;
        ++tableWrites;
        bool flushed = true;
        for (size_t j = 0; j < i; ++j) {
          if (events[j] >= overheadBytes) flushed = false;
          if (events[j] == -1) flushed = true;
        }
        EXPECT_TRUE(flushed) << "table write " << i;
      }
      EXPECT_GE(tableWrites, 6);
      cache_ = kx::create<zarn::CVMDKGrainTableCache>();
    }
  }
}

TEST_F(SparseExtentFileTest, SpaceAccounting) {
  struct Expected {
    int64_t payload, inFile, dead;
  };
  for (bool compressed : {false, true}) {
    make(compressed);
    auto extent = open();
    const auto check = [&](const Expected& e, const char* when) {
      auto info = extent->gatherSpaceInfo();
      EXPECT_EQ(info->getPayloadSize(), e.payload) << when << compressed;
      EXPECT_EQ(info->getPayloadSizeInFile(), e.inFile) << when << compressed;
      EXPECT_EQ(info->getHeaderSize(), static_cast<int64_t>(extent->getHeader().getOverheadSectors()) * 512);
      EXPECT_EQ(info->getDeadSpaceSize(), e.dead) << when << compressed;
    };
    const int64_t trail = compressed ? 1536 : 0;
    check({0, 0, trail}, "new");
    extent->write(test::textGrain(kGrain, 0).data(), kGrain);
    const int64_t small = compressed ? 512 : kGrain;
    check({kGrain, small, trail}, "one grain");
    extent->seek(0);
    extent->write(test::noiseGrain(kGrain, 0).data(), kGrain);  // outgrows its slot and moves
    const int64_t worst = extent->createDataPreparer()->getWorstCaseGrainSizeSectors() * 512;
    check({kGrain, compressed ? worst : kGrain, trail + (compressed ? small : 0)}, "moved");
  }
}

}  // namespace
