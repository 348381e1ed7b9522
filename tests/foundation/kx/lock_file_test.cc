#include "kx/lock_file.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "kx/error.h"
#include "kx/local_file_system.h"
#include "kx/memory_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr int kShared = 1;
constexpr int kExclusive = 2;

// Calls `hook` with the number of each lock attempt that goes through it.
class CHookFileSystem final : public test::CObservedFileSystem {
 public:
  using test::CObservedFileSystem::CObservedFileSystem;
  void onOperation(test::FileOp op, const kx::CURI&, int) override {
    if (op == test::FileOp::Lock && ++locks && hook) hook(locks);
  }
  std::function<void(int)> hook;
  int locks = 0;
};

// Runs on the local file system when the parameter is true, else in memory.
class LockFileTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (GetParam()) {
      fs_ = kx::create<kx::CLocalFileSystem>();
    } else {
      fs_ = kx::create<kx::CMemoryFileSystem>();
    }
  }

  std::unique_ptr<kx::CLockFile> lock(int type, bool deleteOnRelease = false, kx::IFileSystem* fs = nullptr) {
    return std::make_unique<kx::CLockFile>(fs ? fs : fs_.get(), uri_, type, false, deleteOnRelease);
  }

  // The error of a lock that can't be taken, checked for what every conflict says.
  void expectConflict(const std::function<void()>& take) {
    try {
      take();
      ADD_FAILURE() << "the lock was taken";
    } catch (const kx::CLockFileError& e) {
      EXPECT_EQ(e.getMessage(), "VMDK file is locked by another process: " + uri_.toString(true));
      EXPECT_EQ(e.getProps().get("uri"), uri_.toString(true));
      const auto* inner = dynamic_cast<const kx::CFileSystemError*>(e.getInner());
      EXPECT_TRUE(inner && inner->getProblem() == kx::FSPROB_LOCKED);
    }
  }

  test::CTempDir dir_;
  kx::P<kx::IFileSystem> fs_;
  kx::CURI uri_ = dir_.getFileURI("disk.vmdk.lock");
};

TEST_P(LockFileTest, LastHolderDeletesTheFileWhenAsked) {
  lock(kExclusive, true);
  EXPECT_FALSE(fs_->fileExists(uri_));
  lock(kExclusive, false);
  EXPECT_TRUE(fs_->fileExists(uri_));

  auto a = lock(kShared, true);
  auto b = lock(kShared, true);
  a.reset();
  EXPECT_TRUE(fs_->fileExists(uri_));  // b still holds it
  b.reset();
  EXPECT_FALSE(fs_->fileExists(uri_));
}

TEST_P(LockFileTest, WaitingRetriesUntilReleasedOrTheTimeIsUp) {
  auto held = lock(kExclusive);
  auto hooked = kx::create<CHookFileSystem>(fs_);
  hooked->hook = [&](int n) {
    if (n == 2) held.reset();
  };
  kx::CLockFile waiting(hooked.get(), uri_, kExclusive, true, true, 10000);
  EXPECT_EQ(hooked->locks, 2);

  const auto start = std::chrono::steady_clock::now();
  expectConflict([&] { kx::CLockFile(fs_.get(), uri_, kShared, true, true, 30); });
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

// A holder that deletes the file on release races with a taker that opened
// the file just before: the taker must not end up with a lock on a file that
// no name leads to any more.
TEST_P(LockFileTest, TakerStartsOverWhenTheFileWasDeletedUnderIt) {
  auto deleter = lock(kExclusive, true);
  auto hooked = kx::create<CHookFileSystem>(fs_);
  hooked->hook = [&](int n) {
    if (n == 1) deleter.reset();
  };
  auto taker = lock(kExclusive, true, hooked.get());
  EXPECT_EQ(hooked->locks, 2);
  EXPECT_TRUE(fs_->fileExists(uri_));
  expectConflict([&] { lock(kShared); });
}

// A shared lock makes do with a lock file that it may only read; other
// failures of the file system become lock file errors.
TEST_P(LockFileTest, FileSystemFailures) {
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(fs_);
  for (const test::FileOp op : {test::FileOp::Open, test::FileOp::Lock}) {
    faulty->failNth(op, 1);
    try {
      lock(kExclusive, true, faulty.get());
      ADD_FAILURE() << "no error";
    } catch (const kx::CLockFileError& e) {
      EXPECT_EQ(e.getMessage(), (op == test::FileOp::Open ? "Cannot open the lock file: "
                                                          : "Cannot lock the lock file: ") +
                                    uri_.toString(true));
      EXPECT_TRUE(e.getInner() && e.getInner()->getMessage() == "Injected fault");
    }
  }
  faulty->failNth(test::FileOp::Delete, 1);
  test::CLogCapture log;
  lock(kExclusive, true, faulty.get());
  EXPECT_EQ(log.count(kx::LogLevel::Warning), 1u);
  EXPECT_TRUE(fs_->fileExists(uri_));

  faulty->setError(kx::CFileSystemError(kx::FSPROB_ACCESS_DENIED, kx::CError("Permission denied")));
  faulty->failNth(test::FileOp::Open, 1);
  {
    auto reader = lock(kShared, true, faulty.get());
    expectConflict([&] { lock(kExclusive); });
  }
  EXPECT_TRUE(fs_->fileExists(uri_));  // not ours to delete
  faulty->failNth(test::FileOp::Open, 1);
  EXPECT_THROW(lock(kExclusive, true, faulty.get()), kx::CLockFileError);
  EXPECT_THROW(kx::CLockFile(fs_.get(), uri_, 3, false, false), kx::CInvalidArgError);
}

INSTANTIATE_TEST_SUITE_P(BothFileSystems, LockFileTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                           return info.param ? "Local" : "Memory";
                         });

// The child's exit code tells how its attempt went: 0 taken, 1 locked by
// another process, 2 some other failure. _exit skips the destructors of the
// parent's objects, which would unlock its locks.
int lockInChild(const kx::CURI& uri, int type, bool exitHoldingIt = false) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    try {
      auto* held = new kx::CLockFile(kx::create<kx::CLocalFileSystem>().get(), uri, type, false, true);
      if (!exitHoldingIt) delete held;
      ::_exit(0);
    } catch (const kx::CLockFileError& e) {
      ::_exit(e.getMessage().StartsWith("VMDK file is locked") ? 1 : 2);
    } catch (...) {
    }
    ::_exit(2);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Holders in other processes conflict by type like holders in this one.
TEST(LockFileProcessTest, LocksConflictBetweenProcessesUntilReleasedOrTheHolderDies) {
  test::CTempDir dir;
  const kx::CURI uri = dir.getFileURI("disk.vmdk.lock");
  auto fs = kx::create<kx::CLocalFileSystem>();
  for (const int type : {kExclusive, kShared}) {
    kx::CLockFile held(fs.get(), uri, type, false, true);
    EXPECT_EQ(lockInChild(uri, kShared), type == kShared ? 0 : 1);
    EXPECT_EQ(lockInChild(uri, kExclusive), 1);
  }
  EXPECT_EQ(lockInChild(uri, kExclusive, true), 0);
  EXPECT_TRUE(fs->fileExists(uri));  // left behind by the child that died holding it
  kx::CLockFile taken(fs.get(), uri, kExclusive, false, true);
}

}  // namespace
