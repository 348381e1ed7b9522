#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "kx/error.h"
#include "kx/local_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/temp_dir.h"

namespace {

// A FIFO that somebody names as an extent or parent would block every open
// until a peer came; devices and sockets are no files either. Each is refused
// at once, by whatever access.
TEST(LocalFileSystemHostileTest, OnlyRegularFilesOpenAndNothingBlocks) {
  test::CTempDir dir;
  const std::string fifo = dir.getPath() + "/fifo.vmdk";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string socketPath = dir.getPath() + "/socket.vmdk";
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof(address.sun_path) - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

  const struct {
    kx::CURI uri;
    kx::IIOStream::Access access;
    const char* what;
  } cases[] = {
      {dir.getFileURI("fifo.vmdk"), kx::IIOStream::ACCESS_READ, "a FIFO"},
      {dir.getFileURI("fifo.vmdk"), kx::IIOStream::ACCESS_WRITE, "a FIFO"},
      {dir.getFileURI("fifo.vmdk"), kx::IIOStream::ACCESS_READ_WRITE, "a FIFO"},
      {dir.getFileURI("socket.vmdk"), kx::IIOStream::ACCESS_READ, "a socket"},
      {kx::CURI(kx::String("file:///dev/null")), kx::IIOStream::ACCESS_READ, "a character device"},
      {kx::CURI(kx::String("file:///dev/null")), kx::IIOStream::ACCESS_READ_WRITE, "a character device"},
  };
  kx::CLocalFileSystem fs;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.uri << " " << c.access);
    const kx::CFileSystemError error = test::caught(
        [&] {
          int flags = 0;
          fs.openFile(c.uri, c.access, flags);
        },
        kx::CFileSystemError(-1, kx::CError("")));
    EXPECT_EQ(error.getProblem(), kx::FSPROB_OTHER);
    EXPECT_EQ(error.getMessage(), kx::String("Opening the file failed (it is ") + c.what +
                                      ", not a regular file): " + c.uri.toString(true));
    EXPECT_EQ(error.getProps().get("uri"), c.uri.toString(true));
  }
  ::close(listener);
}

}  // namespace
