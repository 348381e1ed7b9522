#include "zarn/grain.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_data.h"
#include "tests/support/grain_stack.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int kGrain = 65536;

class GrainTest : public ::testing::Test {
 protected:
  test::CGrainStack stack(test::GrainStackOptions options = {}) { return test::CGrainStack(*fs_, uri_, options); }
  Bytes file() { return test::readFileBytes(*fs_, uri_); }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
  kx::CURI uri_{kx::String("file:///vms/disk.vmdk")};
};

test::GrainStackOptions opts(bool compressed, bool encrypted) {
  test::GrainStackOptions o;
  o.compressed = compressed;
  o.encrypted = encrypted;
  return o;
}

TEST_F(GrainTest, StoredFormsAreExactInEveryLayout) {
  const Bytes data = test::textGrain(kGrain, 5);
  for (bool compressed : {false, true}) {
    for (bool encrypted : {false, true}) {
      SCOPED_TRACE(std::to_string(compressed) + std::to_string(encrypted));
      Bytes stored;
      int64_t pos = 0, slot = 0;
      {
        auto s = stack(opts(compressed, encrypted));
        s.writeAt(3, 0, data.data(), kGrain);
        s.flush();
        s.slotOf(3, pos, slot);
      }
      const Bytes bytes = file();
      stored.assign(bytes.begin() + pos * 512, bytes.begin() + (pos + slot) * 512);

      // What should stand there, built from the parts rather than the grain.
      kx::TBuffer<unsigned char> plain, aux, iv, expected;
      plain.assign(data.data(), data.size());
      zarn::CVMDKDataPreparer preparer(128, compressed, -1);
      kx::P<kx::TBuffer<unsigned char>> prepared = preparer.prepareGrainData(&plain, 3, &aux);
      expected.assign(prepared->getData(), compressed ? 12 : 0);
      if (encrypted) {
        zarn::CVMDKGrain::makeGrainEncryptIV(iv, test::CGrainStack::testBaseIV(), 3);
        const size_t head = compressed ? 12 : 0;
        brix::CCipher_AES256CBC().encryptData(test::CGrainStack::testKey(), prepared->getData() + head,
                                              static_cast<int>(prepared->getUsed() - head), expected, true,
                                              iv.getData());
      } else {
        expected.assign(prepared->getData(), prepared->getUsed());
      }
      if (compressed) {
        EXPECT_EQ(test::le64(stored, 0), 3u * 128);  // lba, in the clear also when encrypted
        EXPECT_EQ(slot, static_cast<int64_t>(expected.getUsed() + 511) / 512);
      } else {
        EXPECT_EQ(slot, 128);
      }
      stored.resize(slot * 512);
      Bytes want(expected.getData(), expected.getData() + expected.getUsed());
      want.resize(slot * 512, 0);  // a new slot is zero behind its data
      EXPECT_EQ(stored, want);
      if (!compressed && !encrypted) {
        EXPECT_EQ(stored, data);
      }

      auto reopened = stack([&] { auto o = opts(compressed, encrypted); o.create = false; return o; }());
      EXPECT_EQ(reopened.readGrain(3), data);
    }
  }
}

TEST_F(GrainTest, VectorTakesTheDiskGrainIndexTwicePerBlock) {
  kx::TBuffer<unsigned char> base(16), iv;
  base.fill(0);
  zarn::CVMDKGrain::makeGrainEncryptIV(iv, base, 1);
  EXPECT_EQ(Bytes(iv.getData(), iv.getData() + 16), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
  base.fill(0xF0);
  zarn::CVMDKGrain::makeGrainEncryptIV(iv, base, 0x0102030405060708);
  EXPECT_EQ(iv.getData()[0], 0xF8);
  EXPECT_EQ(iv.getData()[7], 0xF1);
  EXPECT_EQ(iv.getData()[15], 0xF1);
}

TEST_F(GrainTest, CompressedGrainStaysInItsSlotOrMovesOnceToTheWorstCase) {
  auto s = stack(opts(true, false));
  const Bytes small = test::textGrain(kGrain, 1), large = test::noiseGrain(kGrain, 1);
  s.writeAt(0, 0, small.data(), kGrain);
  s.flush();
  int64_t pos0 = 0, slot0 = 0, pos = 0, slot = 0;
  s.slotOf(0, pos0, slot0);
  ASSERT_LT(slot0, 5);

  s.writeAt(0, 0, test::textGrain(kGrain, 2).data(), kGrain);  // as small: stays
  s.flush();
  s.slotOf(0, pos, slot);
  EXPECT_EQ(pos, pos0);
  EXPECT_EQ(slot, slot0);

  const int64_t end = s.allocator->getEndPosition();
  s.writeAt(0, 0, large.data(), kGrain);  // outgrows: moves behind the last slot
  s.flush();
  s.slotOf(0, pos, slot);
  const int64_t worst = s.grain->createDataPreparer()->getWorstCaseGrainSizeSectors();
  EXPECT_EQ(pos * 512, end);
  EXPECT_EQ(slot, worst);

  s.writeAt(0, 0, test::noiseGrain(kGrain, 2).data(), kGrain);  // any form fits now
  s.flush();
  int64_t posAgain = 0;
  s.slotOf(0, posAgain, slot);
  EXPECT_EQ(posAgain, pos);
  EXPECT_EQ(s.readGrain(0), test::noiseGrain(kGrain, 2));
}

TEST_F(GrainTest, PreparedGrainsMoveBetweenClearAndEncryptedExtents) {
  for (bool compressed : {false, true}) {
    const Bytes data = test::textGrain(kGrain, 4);
    auto clear = test::CGrainStack(*fs_, kx::CURI(kx::String("file:///clear.vmdk")), opts(compressed, false));
    auto secret = test::CGrainStack(*fs_, kx::CURI(kx::String("file:///secret.vmdk")), opts(compressed, true));
    clear.writeAt(1, 0, data.data(), kGrain);
    kx::TBuffer<unsigned char> prepared;
    for (auto* from : {&clear, &secret}) {
      auto* to = from == &clear ? &secret : &clear;
      const int64_t fromIndex = from == &clear ? 1 : 7, toIndex = from == &clear ? 7 : 9;
      from->openGrain(fromIndex);
      from->grain->readPreparedGrainData(prepared);
      from->grain->createDataPreparer()->patchGrainIndexInPreparedGrainData(prepared, toIndex);
      to->openGrain(toIndex);
      to->grain->writePreparedGrainData(prepared);
      to->flush();
      EXPECT_EQ(to->readGrain(toIndex), data) << compressed;
    }
  }
}

TEST_F(GrainTest, MakeIndependentCopiesTheParentsGrainOnce) {
  auto provider = kx::create<test::CPatternProvider>();
  auto o = opts(true, true);
  o.provider = provider.get();
  auto s = stack(o);
  s.openGrain(4);
  EXPECT_GT(s.grain->makeIndependentOfParent(), 12);
  EXPECT_EQ(s.grain->getBytesLeft(), 0);
  s.openGrain(4);
  EXPECT_EQ(s.grain->makeIndependentOfParent(), kGrain);  // has its slot now
  s.grain->setFallbackDataProvider(nullptr);
  Bytes want(kGrain);
  for (int i = 0; i < kGrain; ++i) want[i] = test::CPatternProvider::byteAt(4 * kGrain + i);
  EXPECT_EQ(s.readGrain(4), want);
  s.openGrain(5);
  EXPECT_EQ(s.grain->makeIndependentOfParent(), 0);
  EXPECT_EQ(s.grain->getPosition(), 0);
}

TEST_F(GrainTest, DamagedStoredGrainsAreRefused) {
  // Each case damages the file behind a flushed compressed grain 0 at sector
  // `pos` and expects the message of a kx::CIOError code 5.
  struct Case {
    const char* name;
    std::function<void(Bytes&, int64_t pos)> damage;
    std::function<void(test::CGrainStack&)> tables;  // changes to the tables, or null
    const char* message;
  };
  const Case cases[] = {
      {"size above twice the grain", [](Bytes& f, int64_t pos) { test::putLE(f, pos * 512 + 8, 2 * kGrain + 1, 4); },
       nullptr, "Error reading compressed data from VMDK. Invalid compressed grain size."},
      {"truncated slot", [](Bytes& f, int64_t pos) { f.resize(pos * 512 + 600); }, nullptr,
       "Stored VMDK grain lies beyond the end of the file."},
      {"entry past the end", [](Bytes&, int64_t) {},
       [](test::CGrainStack& s) { s.directory->setGrainInfo(0, 1 << 20, 3); },
       "Stored VMDK grain lies beyond the end of the file."},
      {"slot size that lies, form of another grain", [](Bytes& f, int64_t pos) { test::putLE(f, pos * 512, 128 * 7, 8); },
       [](test::CGrainStack& s) {
         int64_t pos = 0, slot = 0;
         s.slotOf(0, pos, slot);
         s.directory->setGrainInfo(0, pos, 1);
       },
       "Stored VMDK grain is larger than its slot."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int64_t pos = 0, slot = 0;
    {
      auto s = stack(opts(true, false));
      s.writeAt(0, 0, test::noiseGrain(kGrain, 3).data(), kGrain);
      s.flush();
      s.slotOf(0, pos, slot);
      if (c.tables) c.tables(s);
      s.flush();
    }
    Bytes bytes = file();
    c.damage(bytes, pos);
    test::writeFileBytes(*fs_, uri_, bytes);
    auto o = opts(true, false);
    o.create = false;
    auto s = stack(o);
    Bytes out(16);
    const kx::CIOError error = test::caught([&] { s.openGrain(0); s.grain->read(out.data(), 16); },
                                            kx::CIOError(0, ""));
    EXPECT_EQ(error.getCode(), 5);
    EXPECT_EQ(error.getMessage(), c.message);
    EXPECT_EQ(s.grain->getPosition(), 0);
  }
}

// A writer that stopped between a grain table and its slot table leaves the
// new position with the old slot size. Such a grain reads, and a rewrite that
// no longer fits the recorded size moves rather than run over its neighbour.
TEST_F(GrainTest, StaleSlotSizeReadsAndMovesOnGrowth) {
  for (bool encrypted : {false, true}) {
    SCOPED_TRACE(encrypted);
    const Bytes noise = test::noiseGrain(kGrain, 1), text = test::textGrain(kGrain, 2);
    auto s = stack(opts(true, encrypted));
    s.writeAt(0, 0, noise.data(), kGrain);
    s.writeAt(1, 0, text.data(), kGrain);
    s.flush();
    int64_t pos = 0, slot = 0;
    s.slotOf(0, pos, slot);
    s.directory->setGrainInfo(0, pos, 1);
    s.flush();
    EXPECT_EQ(s.readGrain(0), noise);
    s.writeAt(0, 0, noise.data(), kGrain);
    s.flush();
    int64_t movedPos = 0, movedSlot = 0;
    s.slotOf(0, movedPos, movedSlot);
    EXPECT_GT(movedPos, pos);
    EXPECT_GE(movedSlot, slot);
    EXPECT_EQ(s.readGrain(0), noise);
    EXPECT_EQ(s.readGrain(1), text);
  }
}

TEST_F(GrainTest, StreamCallsPerGrain) {
  auto counting = kx::create<test::CCountingFileSystem>(fs_);
  auto o = opts(true, false);
  o.buffered = false;
  test::CGrainStack s(*counting, uri_, o);
  const Bytes small = test::textGrain(kGrain, 0), large = test::noiseGrain(kGrain, 0);
  s.writeAt(0, 0, small.data(), kGrain);
  s.writeAt(1, 0, large.data(), kGrain);
  s.flush();
  s.openGrain(2);  // the tables are cached from here on

  for (int i : {0, 1}) {
    counting->reset();
    EXPECT_EQ(s.readGrain(i), i ? large : small);
    EXPECT_EQ(counting->getCount(test::FileOp::Read), i ? 2 : 1) << "reads of a compressed grain";
  }
  counting->reset();
  s.writeAt(3, 0, small.data(), kGrain);
  EXPECT_EQ(counting->getCount(test::FileOp::Read), 0) << "a whole-grain write reads nothing";
  s.writeAt(0, 0, small.data(), kGrain - 1);
  EXPECT_EQ(counting->getCount(test::FileOp::Read), 1) << "a partial write loads the grain";
}

TEST_F(GrainTest, AFailedLoadServesNothingStale) {
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(fs_);
  auto o = opts(false, false);
  o.buffered = false;
  test::CGrainStack s(*faulty, uri_, o);
  const Bytes data = test::textGrain(kGrain, 6);
  s.writeAt(0, 0, data.data(), kGrain);
  s.flush();
  s.openGrain(0);
  Bytes out(10);
  faulty->failNth(test::FileOp::Read, 1);
  EXPECT_THROW(s.grain->read(out.data(), 10), kx::CFileSystemError);
  faulty->disarm();
  s.grain->read(out.data(), 10);
  EXPECT_EQ(out, Bytes(data.begin(), data.begin() + 10));
}

TEST_F(GrainTest, RefusalsCarryTheirErrors) {
  auto s = stack(opts(true, false));
  auto ro = [&] { auto o = opts(true, false); o.create = false; o.access = kx::IIOStream::ACCESS_READ; return o; };
  Bytes buffer(kGrain + 1);
  kx::TBuffer<unsigned char> prepared, empty;
  struct Case {
    const char* name;
    std::function<void()> op;
    int code;
    const char* message;
  };
  const Case cases[] = {
      {"seek to the end", [&] { s.openGrain(0); s.grain->seek(kGrain); }, -1, "Invalid seek position in VMDK grain: 65536"},
      {"read past the grain", [&] { s.openGrain(0); s.grain->seek(1); s.grain->read(buffer.data(), kGrain); }, 4,
       "Unexpected end of data trying to read 65536 bytes from VMDK grain."},
      {"write past the grain", [&] { s.openGrain(0); s.grain->seek(1); s.grain->write(buffer.data(), kGrain); }, 3,
       "Cannot write 65536 bytes to grain. Grain size exceeded."},
      {"prepared read inside", [&] { s.openGrain(0); s.grain->seek(1); s.grain->readPreparedGrainData(prepared); },
       3, "CVMDKGrain::tryReadPreparedGrainData can only be called when the position in the grain is 0."},
      {"prepared write inside", [&] { s.openGrain(0); s.grain->seek(1); s.grain->writePreparedGrainData(prepared); },
       3, "CVMDKGrain::writePreparedGrainData can only be called when the position in the grain is 0."},
      {"empty prepared write", [&] { s.openGrain(0); s.grain->writePreparedGrainData(empty); }, 3,
       "CVMDKGrain::writePreparedGrainData called with zero-length prepared data."},
      {"negative compressed slot", [&] { s.grain->open(0, 0, 500, -1); }, -1,
       "Invalid slot size for allocated compressed grain: -1 sectors"},
      {"write when read-only", [&] { test::CGrainStack r(*fs_, uri_, ro()); r.openGrain(0); r.grain->write("x", 1); },
       -1, "Internal error: CVMDKGrain::write was called, but the grain was not opened for writing."},
  };
  for (const Case& c : cases) {
    const kx::CError error = test::caught(c.op, kx::CError("none", "", 0));
    EXPECT_EQ(error.getCode(), c.code) << c.name;
    EXPECT_EQ(error.getMessage(), c.message) << c.name;
  }
  test::CGrainStack plain(*fs_, kx::CURI(kx::String("file:///p.vmdk")), opts(false, false));
  EXPECT_THROW(plain.grain->open(0, 0, 500, 127), kx::CInvalidArgError);
}

}  // namespace
