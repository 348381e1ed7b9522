// The forwarding wrapper and the test file systems built on it.
#include "kx/file_system_wrapper.h"

#include <gtest/gtest.h>

#include <string>

#include "kx/memory_file_system.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/fault_injection_file_system.h"

namespace {

using test::FileOp;

class FileSystemWrapperTest : public testing::Test {
 protected:
  kx::P<kx::IIOStream> open(kx::IFileSystem& fs, const char* name) {
    int flags = 0;
    return fs.openFile(uri(name), kx::IIOStream::ACCESS_READ_WRITE, flags);
  }
  static kx::CURI uri(const char* name) { return kx::CURI(kx::String("mem:") + name); }
  std::string contentOf(const char* name) {
    const auto data = memory_->getFileData(uri(name));
    return std::string(reinterpret_cast<const char*>(data.getData()), data.getUsed());
  }

  kx::P<kx::CMemoryFileSystem> memory_ = kx::create<kx::CMemoryFileSystem>();
};

TEST_F(FileSystemWrapperTest, PlainWrapperForwards) {
  auto wrapper = kx::create<kx::CFileSystemWrapper>(memory_);
  EXPECT_EQ(wrapper->getTarget(), static_cast<kx::IFileSystem*>(memory_.get()));
  open(*wrapper, "f")->write("x", 1, nullptr);
  EXPECT_TRUE(wrapper->fileExists(uri("f")));
  wrapper->deleteFile(uri("f"), false);
  EXPECT_FALSE(memory_->fileExists(uri("f")));
  EXPECT_THROW(kx::CFileSystemWrapper(nullptr), kx::CError);
}

TEST_F(FileSystemWrapperTest, CountsOperationsOverAllStreams) {
  auto counting = kx::create<test::CCountingFileSystem>(memory_);
  kx::P<kx::IIOStream> a = open(*counting, "a");
  kx::P<kx::IIOStream> b = open(*counting, "b");
  a->write("abc", 3, nullptr);
  b->write("de", 2, nullptr);
  a->seek(0);
  char buffer[3];
  a->read(buffer, 2);
  a->readLax(buffer, 3);
  a->flush();
  a->createWriteBarrier(nullptr);
  b->setLength(1);
  a->getLength();
  a->getPosition();
  a->isEndOfStream();
  counting->deleteFile(uri("b"), false);

  struct Expected {
    FileOp op;
    int64_t count;
  };
  for (const Expected& e :
       {Expected{FileOp::Open, 2}, Expected{FileOp::Write, 2}, Expected{FileOp::Seek, 1},
        Expected{FileOp::Read, 2}, Expected{FileOp::Flush, 2}, Expected{FileOp::SetLength, 1},
        Expected{FileOp::Lock, 0}, Expected{FileOp::Delete, 1}}) {
    EXPECT_EQ(counting->getCount(e.op), e.count) << test::getFileOpName(e.op);
  }
  EXPECT_EQ(counting->getBytes(FileOp::Write), 5);
  EXPECT_EQ(counting->getBytes(FileOp::Read), 5);
  counting->reset();
  EXPECT_EQ(counting->getCount(FileOp::Open), 0);
}

TEST_F(FileSystemWrapperTest, FailsTheNthCallOfAKindAcrossStreams) {
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(memory_);
  kx::P<kx::IIOStream> a = open(*faulty, "a");
  kx::P<kx::IIOStream> b = open(*faulty, "b");
  faulty->failNth(FileOp::Write, 3);
  a->write("1", 1, nullptr);
  b->write("2", 1, nullptr);
  try {
    a->write("3", 1, nullptr);
    FAIL() << "no fault";
  } catch (const kx::CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), kx::FSPROB_IO);
    EXPECT_EQ(e.getMessage(), "Injected fault");
    EXPECT_EQ(e.getProps().get("op"), "write");
    EXPECT_EQ(e.getProps().get("uri"), "mem:a");
  }
  a->write("4", 1, nullptr);
  EXPECT_EQ(contentOf("a"), "14");  // the failed write never arrived
  EXPECT_EQ(faulty->getFaultCount(), 1);
  EXPECT_EQ(faulty->getCallCount(FileOp::Write), 4);

  faulty->failNth(FileOp::Open, 2, true);
  open(*faulty, "c");
  EXPECT_THROW(open(*faulty, "d"), kx::CFileSystemError);
  EXPECT_THROW(open(*faulty, "e"), kx::CFileSystemError);
  EXPECT_FALSE(memory_->fileExists(uri("d")));
  faulty->disarm();
  open(*faulty, "d");

  faulty->setError(kx::CIOError(kx::IOERR_DAMAGED_DATA, "Bad sector"));
  faulty->failNth(FileOp::Delete, 1);
  try {
    faulty->deleteFile(uri("d"), false);
    FAIL() << "no fault";
  } catch (const kx::CIOError& e) {
    EXPECT_EQ(e.getCode(), kx::IOERR_DAMAGED_DATA);
  }
  EXPECT_TRUE(memory_->fileExists(uri("d")));
}

// The way to use it: walk through every failure point of a piece of work.
TEST_F(FileSystemWrapperTest, FailsEverythingAfterNOperations) {
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(memory_);
  const auto work = [&] {
    kx::P<kx::IIOStream> stream = open(*faulty, "f");
    stream->write("head", 4, nullptr);
    stream->write("body", 4, nullptr);
    stream->flush();
    faulty->deleteFile(uri("old"), true);
  };
  int failingRuns = 0;
  for (int n = 0;; ++n) {
    faulty->failAllAfter(n);
    try {
      work();
      break;
    } catch (const kx::CFileSystemError&) {
      ++failingRuns;
      EXPECT_THROW(faulty->deleteFile(uri("f"), true),
                   kx::CFileSystemError);  // nothing gets through any more
    }
  }
  EXPECT_EQ(failingRuns, 5);
  faulty->disarm();
  EXPECT_EQ(contentOf("f"), "headbody");
}

}  // namespace
