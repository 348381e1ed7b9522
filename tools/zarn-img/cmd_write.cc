#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "kx/error.h"

namespace zarn_img {

namespace {

// The input file, or stdin for "-"; closed with the object.
class CInput {
 public:
  explicit CInput(const std::string& path)
      : path_(path), fd_(path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_ < 0) fail("Cannot open the input");
  }
  ~CInput() {
    if (fd_ > STDIN_FILENO) ::close(fd_);
  }
  CInput(const CInput&) = delete;
  CInput& operator=(const CInput&) = delete;

  // The size of a regular file, -1 for a pipe or a terminal.
  int64_t getKnownSize() const {
    struct stat info;
    return ::fstat(fd_, &info) == 0 && S_ISREG(info.st_mode) ? static_cast<int64_t>(info.st_size) : -1;
  }

  // Fills `buffer` as far as the input goes; fewer bytes only at its end.
  size_t readFull(unsigned char* buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
      const ssize_t got = ::read(fd_, buffer + done, size - done);
      if (got < 0 && errno == EINTR) {
        checkInterrupted();
        continue;
      }
      if (got < 0) fail("Cannot read the input");
      if (got == 0) break;
      done += static_cast<size_t>(got);
    }
    return done;
  }

 private:
  [[noreturn]] void fail(const char* what) const {
    throw kx::CError(kx::String(what) + ": " + std::strerror(errno), kx::String(), -1,
                     kx::CProps().add("path", path_));
  }

  std::string path_;
  int fd_;
};

}  // namespace

int runWrite(CToolContext& context, const Args& args) {
  const CArguments arguments("write", withCommonOptions({{0, "offset", true, false}}), args);
  if (arguments.wantsHelp()) {
    std::printf(
        "Usage: zarn-img write [--offset BYTES] [-q] [--password-file F] [--confine DIR] FILE INPUT\n"
        "\n"
        "Writes the bytes of INPUT (a file, or - for stdin) into the disk FILE from\n"
        "byte BYTES on (default 0; suffixes K, M, G, T), at any alignment. In a\n"
        "differencing disk the rest of a grain that is written in part keeps its\n"
        "content from the parent. Ctrl-C stops it between two grains.\n"
        "\n%s",
        kCommonHelp);
    return 0;
  }
  arguments.expectPositional(2, 2, "FILE and INPUT");
  const int64_t offset = parseSize("write", "offset", arguments.get("offset", "0"));
  applyCommonOptions(context, arguments);
  CInput input(arguments.positional()[1]);
  kx::P<zarn::CVMDKDisk> disk = context.openDiskChecked(arguments.positional()[0], kx::IIOStream::ACCESS_READ_WRITE);
  const int64_t known = input.getKnownSize();
  if (offset > disk->getSizeBytes() || (known >= 0 && known > disk->getSizeBytes() - offset)) {
    // Refused before the first byte moves, not halfway.
    throw kx::CError("The input doesn't fit into the disk at this offset.", kx::String(), -1,
                     kx::CProps().add("offset", offset).add("inputSize", known).add("diskSize", disk->getSizeBytes()));
  }
  disk->seek(offset);
  // A grain at a time, the first up to the grain border after the offset: a
  // signal stops the work between grains, never inside one.
  const int64_t grain = disk->getGrainSizeBytes();
  std::vector<unsigned char> chunk(static_cast<size_t>(grain));
  int64_t written = 0;
  for (;;) {
    checkInterrupted();
    const int64_t position = offset + written;
    const size_t wanted = static_cast<size_t>(grain - position % grain);
    const size_t got = input.readFull(chunk.data(), wanted);
    if (got == 0) break;
    if (static_cast<int64_t>(got) > disk->getSizeBytes() - position) {
      throw kx::CError("The input doesn't fit into the disk at this offset.", kx::String(), -1,
                       kx::CProps().add("offset", offset).add("diskSize", disk->getSizeBytes()));
    }
    disk->write(chunk.data(), static_cast<int>(got));
    written += static_cast<int64_t>(got);
    if (got < wanted) break;
  }
  disk->flushChanges();
  if (!isQuiet(arguments)) {
    std::printf("wrote %lld bytes at offset %lld\n", static_cast<long long>(written), static_cast<long long>(offset));
  }
  return 0;
}

}  // namespace zarn_img
