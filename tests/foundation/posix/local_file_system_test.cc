// A flush of a local file waits for the device. fdatasync is interposed here,
// to count the waits and to fail on demand.
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <utility>

#include "kx/error.h"
#include "kx/local_file_system.h"
#include "kx/optimizing_stream.h"
#include "tests/support/temp_dir.h"

namespace {
int g_syncs = 0;
int g_failWith = 0;  // the next call fails with this error number
}  // namespace

extern "C" int fdatasync(int fd) {
  ++g_syncs;
  if (const int error = std::exchange(g_failWith, 0)) {
    errno = error;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_fdatasync, fd));
}

namespace {

TEST(LocalFileFlushTest, WaitsForTheDeviceAfterWritesOnly) {
  test::CTempDir dir;
  const kx::CURI uri = dir.getFileURI("flushed.bin");
  auto fs = kx::create<kx::CLocalFileSystem>();
  int flags = 0;
  auto stream = kx::create<kx::COptimizingIOStream>(fs->openFile(uri, kx::IIOStream::ACCESS_READ_WRITE, flags));
  const struct {
    const char* what;
    std::function<void()> before;
    int failWith;
    int syncs;
    int problem;  // of the error that flush raises, -1 for none
  } steps[] = {
      {"nothing written", [] {}, 0, 0, -1},
      {"a write", [&] { stream->write("abc", 3, nullptr); }, 0, 1, -1},
      {"nothing since the last flush", [] {}, 0, 0, -1},
      {"interrupted once", [&] { stream->write("d", 1, nullptr); }, EINTR, 2, -1},
      {"a device error", [&] { stream->write("e", 1, nullptr); }, EIO, 1, kx::FSPROB_IO},
      {"the same data again", [] {}, 0, 1, -1},
      {"a new length", [&] { stream->setLength(2); }, 0, 1, -1},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    step.before();
    g_syncs = 0;
    g_failWith = step.failWith;
    int problem = -1;
    try {
      stream->flush();
    } catch (const kx::CFileSystemError& e) {
      problem = e.getProblem();
    }
    EXPECT_EQ(problem, step.problem);
    EXPECT_EQ(g_syncs, step.syncs);
  }
  stream = nullptr;
  g_syncs = 0;
  auto reader = kx::create<kx::COptimizingIOStream>(fs->openFile(uri, kx::IIOStream::ACCESS_READ, flags));
  char bytes[2];
  reader->read(bytes, 2);
  reader->close();
  EXPECT_EQ(g_syncs, 0);
}

}  // namespace
