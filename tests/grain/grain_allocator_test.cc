#include "zarn/grain_allocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/grain_stack.h"
#include "tests/support/log_capture.h"

namespace {

using Bytes = std::vector<unsigned char>;

class GrainAllocatorTest : public ::testing::Test {
 protected:
  test::GrainStackOptions opts(bool compressed, bool create = true,
                               kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
    test::GrainStackOptions o;
    o.compressed = compressed;
    o.create = create;
    o.access = access;
    o.buffered = false;
    return o;
  }
  Bytes file() { return test::readFileBytes(*memory_, uri_); }
  void append(size_t bytes) {
    Bytes f = file();
    f.resize(f.size() + bytes, 0xEE);
    test::writeFileBytes(*memory_, uri_, f);
  }

  kx::P<kx::CMemoryFileSystem> memory_ = kx::create<kx::CMemoryFileSystem>();
  kx::P<test::CCountingFileSystem> fs_ = kx::create<test::CCountingFileSystem>(memory_);
  kx::CURI uri_{kx::String("file:///a.vmdk")};
};

TEST_F(GrainAllocatorTest, PlainSlotsAreAlignedAndZeroFilled) {
  { test::CGrainStack made(*fs_, uri_, opts(false)); }
  append(172 * 512);  // foreign bytes: the file now ends at sector 300
  test::CGrainStack s(*fs_, uri_, opts(false, false));
  const Bytes data(1000, 0x5A);
  EXPECT_EQ(s.allocator->allocNewGrain(7, data.data(), 1000, 128), 384);
  const Bytes f = file();
  ASSERT_EQ(f.size(), 512u * 512);
  EXPECT_TRUE(std::all_of(f.begin() + 300 * 512, f.begin() + 384 * 512, [](auto b) { return b == 0; }));
  EXPECT_TRUE(std::all_of(f.begin() + 384 * 512, f.begin() + 384 * 512 + 1000, [](auto b) { return b == 0x5A; }));
  EXPECT_TRUE(std::all_of(f.begin() + 384 * 512 + 1000, f.end(), [](auto b) { return b == 0; }));
  int64_t pos = 0, slot = 0;
  s.slotOf(7, pos, slot);
  EXPECT_EQ(pos, 384);
  EXPECT_EQ(slot, 128);
}

TEST_F(GrainAllocatorTest, TheTrailFollowsTheLastSlot) {
  int64_t trailStart = 0;
  { test::CGrainStack made(*fs_, uri_, opts(true)); trailStart = made.stream->getLength() - 1536; }
  const Bytes made = file(), trail(made.end() - 1536, made.end());
  test::CGrainStack s(*fs_, uri_, opts(true, false));
  EXPECT_EQ(s.allocator->allocNewGrain(0, "", 0, 1), trailStart / 512);  // over the old trail: 512 zeros
  fs_->reset();
  s.allocator->flushChangesToStream();
  s.allocator->flushChangesToStream();
  EXPECT_EQ(fs_->getCount(test::FileOp::Write), 1);  // the second flush has nothing to write
  const Bytes f = file();
  EXPECT_EQ(static_cast<int64_t>(f.size()), trailStart + 512 + 1536);
  EXPECT_EQ(Bytes(f.end() - 1536, f.end()), trail);
  EXPECT_TRUE(std::all_of(f.begin() + trailStart, f.begin() + trailStart + 512, [](auto b) { return b == 0; }));
}

TEST_F(GrainAllocatorTest, AForeignTailIsKeptAndTheTrailGoesBehindIt) {
  { test::CGrainStack made(*fs_, uri_, opts(true)); }
  append(100);  // as if a writer stopped between a grain and its flush
  const Bytes before = file();
  {
    test::CLogCapture log;
    test::CGrainStack reader(*fs_, uri_, opts(true, false, kx::IIOStream::ACCESS_READ));
    EXPECT_EQ(log.count(kx::LogLevel::Warning), 1u);
    reader.allocator->flushChangesToStream();
  }
  EXPECT_EQ(file(), before);  // a reader never writes

  test::CGrainStack s(*fs_, uri_, opts(true, false));
  s.allocator->flushChangesToStream();  // the trail is due even without a grain
  EXPECT_EQ(file().size(), before.size() + 1536);
  EXPECT_EQ(s.allocator->allocNewGrain(1, "x", 1, 1) * 512, static_cast<int64_t>(before.size() + 412));
  EXPECT_TRUE(std::equal(before.begin(), before.end(), file().begin()));
}

TEST_F(GrainAllocatorTest, RefusalsWriteNothing) {
  { test::CGrainStack made(*fs_, uri_, opts(false)); }
  test::CGrainStack ro(*fs_, uri_, opts(false, false, kx::IIOStream::ACCESS_READ));
  fs_->reset();
  const Bytes big(513);
  const auto message = [&](int size) {
    return test::caught([&] { ro.allocator->allocNewGrain(0, big.data(), size, 1); }, kx::CError("none"))
        .getMessage().toUTF8();
  };
  EXPECT_EQ(message(513), "Slot size is smaller than grain data size (slot size: 512 bytes, grain data size: 513 bytes)");
  EXPECT_EQ(message(512),
            "Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain allocator was not opened for "
            "writing.");
  EXPECT_EQ(fs_->getCount(test::FileOp::Write), 0);
}

}  // namespace
