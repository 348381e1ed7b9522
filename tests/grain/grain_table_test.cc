#include "zarn/grain_table.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/log_capture.h"

namespace {

// A 64-sector file with a table of 512 entries at sector 10, its redundant copy
// at 20 and a slot table at 30, on an unbuffered stream so writes can be counted.
class GrainTableTest : public ::testing::Test {
 protected:
  void SetUp() override { test::writeFileBytes(*memory_, uri_, std::vector<unsigned char>(64 * 512, 0)); }
  kx::P<zarn::CVMDKGrainTable> table(int64_t redundant, int64_t slots,
                                     kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
    int flags = 0;
    return kx::create<zarn::CVMDKGrainTable>(fs_->openFile(uri_, access, flags).get(), access, 128, 10, redundant,
                                             slots, 512);
  }
  std::vector<unsigned char> file() { return test::readFileBytes(*memory_, uri_); }

  kx::P<kx::CMemoryFileSystem> memory_ = kx::create<kx::CMemoryFileSystem>();
  kx::P<test::CFaultInjectionFileSystem> fs_ = kx::create<test::CFaultInjectionFileSystem>(memory_);
  kx::CURI uri_{kx::String("file:///t.vmdk")};
};

TEST_F(GrainTableTest, FlushWritesWhatChangedAndOnlyThat) {
  auto t = table(20, 30);
  const auto writes = [&](std::function<void()> change) {
    const int before = fs_->getCallCount(test::FileOp::Write);
    change();
    t->flushChangesToStream();
    return fs_->getCallCount(test::FileOp::Write) - before;
  };
  EXPECT_EQ(writes([&] { t->setGrainInfo(5, 100, 3); }), 3);  // primary, redundant, slot table
  EXPECT_EQ(test::le32(file(), 10 * 512 + 20), 100u);
  EXPECT_EQ(test::le32(file(), 20 * 512 + 20), 100u);
  EXPECT_EQ(test::le16(file(), 30 * 512 + 10), 3u);
  EXPECT_EQ(writes([&] { t->setGrainInfo(5, 100, 4); }), 1);  // slot table alone
  EXPECT_EQ(writes([&] { t->setGrainInfo(5, 200, 4); }), 2);  // both copies alone
  t->setGrainInfo(5, 200, 4);
  EXPECT_FALSE(t->hasUnflushedChanges());

  // Without a redundant copy one write; a dirty table writes itself when dropped.
  t = table(0, 0);
  EXPECT_EQ(writes([&] { t->setGrainInfo(6, 300, 128); }), 1);
  t->setGrainInfo(7, 400, 128);
  t = nullptr;
  EXPECT_EQ(test::le32(file(), 10 * 512 + 28), 400u);
  EXPECT_EQ(test::le32(file(), 20 * 512 + 28), 0u);
}

TEST_F(GrainTableTest, EntryZeroHasNoSlotWhateverTheSlotTableSays) {
  auto bytes = file();
  test::putLE(bytes, 30 * 512 + 2, 9, 2);
  test::writeFileBytes(*memory_, uri_, bytes);
  int64_t pos = -1, slot = -1;
  table(20, 30)->getGrainInfo(1, pos, slot);
  EXPECT_EQ(pos, 0);
  EXPECT_EQ(slot, 0);
}

TEST_F(GrainTableTest, RefusalsComeInTheirOrder) {
  auto rw = table(20, 0), ro = table(20, 0, kx::IIOStream::ACCESS_READ), slots = table(20, 30);
  struct Case {
    std::function<void()> op;
    const char* message;
  };
  const Case cases[] = {
      {[&] { ro->setGrainInfo(512, 1, 128); }, "Invalid grain index: 512"},
      {[&] { ro->setGrainInfo(0, 1, 0); },
       "Invalid grain slot size - it must equal the grain size (slot size: 0, grain size: 128)"},
      {[&] { slots->setGrainInfo(0, 1, 0); }, "Invalid grain slot size."},
      {[&] { ro->setGrainInfo(0, 1, 128); },
       "Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not opened for writing."},
      {[&] { rw->setGrainInfo(0, int64_t{1} << 32, 128); }, "Grain position does not fit a VMDK grain table entry."},
      {[&] { int64_t p, s; rw->getGrainInfo(-1, p, s); }, "Invalid grain index: -1"},
  };
  for (const Case& c : cases) EXPECT_EQ(test::caught(c.op, kx::CError("none")).getMessage(), c.message);
}

TEST_F(GrainTableTest, DamageAndFailuresAreReported) {
  int flags = 0;
  auto stream = fs_->openFile(uri_, kx::IIOStream::ACCESS_READ_WRITE, flags);
  EXPECT_EQ(test::ioErrorCode([&] { zarn::CVMDKGrainTable(stream.get(), kx::IIOStream::ACCESS_READ, 128, 63, 0, 0, 512); }), 5);
  EXPECT_EQ(test::ioErrorCode([&] { zarn::CVMDKGrainTable(stream.get(), kx::IIOStream::ACCESS_READ, 128, 1, 0, 0, 1 << 30); }), 5);

  test::CLogCapture log;
  auto t = table(20, 30);
  t->setGrainInfo(0, 50, 1);
  fs_->failNth(test::FileOp::Write, 1);
  t = nullptr;  // the failed write can only be reported
  ASSERT_EQ(log.count(kx::LogLevel::Error), 1u);
  EXPECT_NE(log.lines[0].text.find("zarn::CVMDKGrainTable"), std::string::npos);
}

}  // namespace
