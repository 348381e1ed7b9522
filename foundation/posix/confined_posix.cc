#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "foundation/kx/confined_local.h"
#include "foundation/posix/local_file_stream.h"
#include "kx/error.h"

namespace kx {
namespace confined {
namespace {

constexpr mode_t kNewFileMode = 0644;

// openat2 with RESOLVE_BENEATH: the kernel refuses, with EXDEV, any path
// (".." or a link, absolute or relative, also one swapped in meanwhile) that
// would leave the folder. Where the call doesn't exist (an older kernel, a
// filter), each piece is opened without following links, which holds as well
// but refuses every link.
int openAt(int folderFd, const std::string& path, int flags, mode_t mode) {
  struct open_how how;
  std::memset(&how, 0, sizeof(how));
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.mode = (flags & O_CREAT) ? mode : 0;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  long fd;
  do {
    fd = ::syscall(SYS_openat2, folderFd, path.c_str(), &how, sizeof(how));
  } while (fd < 0 && errno == EINTR);
  if (fd >= 0 || (errno != ENOSYS && errno != EPERM)) return static_cast<int>(fd);

  int dir = ::dup(folderFd);
  if (dir < 0) return -1;
  size_t start = 0;
  for (;;) {
    const size_t slash = path.find('/', start);
    const std::string piece = path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    const bool last = slash == std::string::npos;
    const int next = ::openat(dir, piece.c_str(), (last ? flags : O_PATH | O_DIRECTORY) | O_NOFOLLOW | O_CLOEXEC,
                              mode);
    const int error = errno;
    ::close(dir);
    if (next < 0) {
      errno = error == ELOOP ? EXDEV : error;
      return -1;
    }
    if (last) return next;
    dir = next;
    start = slash + 1;
  }
}

// The folder of `path`'s last piece, and that piece.
int openParent(int folderFd, const std::string& path, std::string& name) {
  const size_t slash = path.rfind('/');
  name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (slash == std::string::npos) return ::dup(folderFd);
  return openAt(folderFd, path.substr(0, slash), O_PATH | O_DIRECTORY, 0);
}

}  // namespace

int openFolder(const std::string& path, const CURI& uri) {
  const int fd = ::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) posix::throwLocalSystemError("Opening the folder", errno, uri);
  return fd;
}

void closeFolder(int folderFd) noexcept {
  if (folderFd >= 0) ::close(folderFd);
}

P<IIOStream> openBeneath(int folderFd, const std::string& relativePath, const CURI& uri, IIOStream::Access access,
                         const std::function<void()>& refuse) {
  int flags;
  switch (access) {
    case IIOStream::ACCESS_READ: flags = O_RDONLY; break;
    case IIOStream::ACCESS_WRITE: flags = O_WRONLY | O_CREAT; break;
    default: flags = O_RDWR | O_CREAT; break;
  }
  // Never wait on a FIFO or a device: only regular files are taken.
  const int fd = openAt(folderFd, relativePath, flags | O_NONBLOCK, kNewFileMode);
  if (fd < 0) {
    if (errno == EXDEV) refuse();
    posix::throwLocalSystemError("Opening the file", errno, uri);
  }
  struct stat info;
  const int error = ::fstat(fd, &info) < 0 ? errno : S_ISDIR(info.st_mode) ? EISDIR : S_ISREG(info.st_mode) ? 0 : EINVAL;
  if (error != 0) {
    ::close(fd);
    posix::throwLocalSystemError("Opening the file (it must be a regular file)", error, uri);
  }
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  return posix::adoptLocalFileStream(fd, uri, access);
}

bool existsBeneath(int folderFd, const std::string& relativePath, const CURI&, const std::function<void()>& refuse) {
  const int fd = openAt(folderFd, relativePath, O_PATH, 0);
  if (fd < 0) {
    if (errno == EXDEV) refuse();
    return false;
  }
  struct stat info;
  const bool exists = ::fstat(fd, &info) == 0 && !S_ISDIR(info.st_mode);
  ::close(fd);
  return exists;
}

void deleteBeneath(int folderFd, const std::string& relativePath, const CURI& uri, bool missingIsOk,
                   const std::function<void()>& refuse) {
  std::string name;
  const int parent = openParent(folderFd, relativePath, name);
  if (parent < 0) {
    if (errno == EXDEV) refuse();
    if (errno == ENOENT && missingIsOk) return;
    posix::throwLocalSystemError("Deleting the file", errno, uri);
  }
  const int result = ::unlinkat(parent, name.c_str(), 0);
  const int error = errno;
  ::close(parent);
  if (result == 0 || (error == ENOENT && missingIsOk)) return;
  posix::throwLocalSystemError("Deleting the file", error, uri);
}

void renameBeneath(int folderFd, const std::string& fromPath, const std::string& toPath, const CURI& from,
                   const std::function<void()>& refuse) {
  std::string fromName, toName;
  const int fromParent = openParent(folderFd, fromPath, fromName);
  if (fromParent < 0) {
    if (errno == EXDEV) refuse();
    posix::throwLocalSystemError("Renaming the file", errno, from);
  }
  // Readable, not a bare path: it is flushed once the name is in it.
  const size_t slash = toPath.rfind('/');
  toName = slash == std::string::npos ? toPath : toPath.substr(slash + 1);
  const int toParent = slash == std::string::npos ? ::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                                  : openAt(folderFd, toPath.substr(0, slash), O_RDONLY | O_DIRECTORY, 0);
  if (toParent < 0) {
    const int error = errno;
    ::close(fromParent);
    if (error == EXDEV) refuse();
    posix::throwLocalSystemError("Renaming the file", error, from);
  }
  const int result = ::renameat(fromParent, fromName.c_str(), toParent, toName.c_str());
  const int error = errno;
  if (result == 0) ::fsync(toParent);
  ::close(fromParent);
  ::close(toParent);
  if (result != 0) posix::throwLocalSystemError("Renaming the file", error, from);
}

}  // namespace confined
}  // namespace kx
