// The local file system on POSIX systems. The only file of the library that
// calls the system's file functions.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "foundation/kx/stream_checks.h"
#include "kx/error.h"
#include "kx/data_regions.h"
#include "kx/range_copy.h"
#include "kx/write_back.h"
#include "kx/file_identity.h"
#include "kx/local_file_system.h"
#include "foundation/posix/local_file_stream.h"

#ifndef F_OFD_SETLK
#error "Byte-range locks need open file description locks (F_OFD_SETLK)"
#endif

namespace kx {

namespace {

constexpr mode_t kNewFileMode = 0644;

// Either variant of strerror_r: the GNU one gives the text, the XSI one fills
// the buffer.
[[maybe_unused]] const char* pickErrorText(int, const char* buffer) { return buffer; }
[[maybe_unused]] const char* pickErrorText(const char* text, const char*) { return text; }

String getSystemErrorText(int error) {
  char buffer[256] = {0};
  return String(pickErrorText(strerror_r(error, buffer, sizeof(buffer)), buffer));
}

// The one place where the system's error numbers become problems. `locking`:
// the error came from a byte-range lock, where EAGAIN and EACCES mean that
// somebody else holds the range.
int getFileSystemProblem(int error, bool locking) {
  if (locking && (error == EAGAIN || error == EACCES)) return FSPROB_LOCKED;
  if (locking && (error == EINVAL || error == ENOLCK)) return FSPROB_NOT_SUPPORTED;
  switch (error) {
    case ENOENT:
    case ENOTDIR: return FSPROB_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS: return FSPROB_ACCESS_DENIED;
    case EEXIST: return FSPROB_ALREADY_EXISTS;
    case ENOSPC:
    case EDQUOT:
    case EFBIG: return FSPROB_NO_SPACE;
    case ENAMETOOLONG:
    case EILSEQ: return FSPROB_BAD_NAME;
    case ENOSYS:
    case EOPNOTSUPP: return FSPROB_NOT_SUPPORTED;
    case EISDIR:
    case EMFILE:
    case ENFILE:
    case ENOMEM: return FSPROB_OTHER;
    default: return FSPROB_IO;
  }
}

[[noreturn]] void throwSystemError(const char* operation, int error, const CURI& uri, bool locking = false,
                                   CProps extra = CProps()) {
  CProps props = makeURIProps(uri);
  props.add("systemErrorCode", int64_t{error});
  for (const auto& item : extra.getItems()) props.add(item.first, item.second);
  throw CFileSystemError(
      getFileSystemProblem(error, locking),
      CError(String(operation) + " failed (" + getSystemErrorText(error) + "): " + uri.toString(true),
             String(), -1, props));
}

// What a file is, for the message that refuses it.
const char* getFileTypeName(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  return "no regular file";
}

[[noreturn]] void throwNotRegularFile(const CURI& uri, mode_t mode) {
  throw CFileSystemError(FSPROB_OTHER, CError(String("Opening the file failed (it is ") + getFileTypeName(mode) +
                                                  ", not a regular file): " + uri.toString(true),
                                              String(), -1, makeURIProps(uri)));
}

// The descriptor of one open; closed when the stream and all its locks are
// gone, since the system drops the locks of an open with its last descriptor.
class CFileHandle final : public CBase {
 public:
  explicit CFileHandle(int fd) : fd_(fd) {}
  ~CFileHandle() override { ::close(fd_); }  // Linux closes even on EINTR; nothing to retry
  int get() const { return fd_; }

 private:
  int fd_;
};

int setRangeLock(int fd, short lockType, int64_t offset, int64_t length) {
  struct flock request;
  std::memset(&request, 0, sizeof(request));
  request.l_type = lockType;
  request.l_whence = SEEK_SET;
  request.l_start = static_cast<off_t>(offset);
  request.l_len = static_cast<off_t>(length);
  request.l_pid = 0;  // required for open file description locks
  int result;
  do {
    result = ::fcntl(fd, F_OFD_SETLK, &request);
  } while (result < 0 && errno == EINTR);
  return result < 0 ? errno : 0;
}

class CLocalStreamLock final : public CBase, public IStreamLock {
 public:
  CLocalStreamLock(const P<CFileHandle>& handle, int64_t offset, int64_t length)
      : handle_(handle), offset_(offset), length_(length) {}
  // An unlock can't fail for a range that this open holds.
  ~CLocalStreamLock() override { setRangeLock(handle_->get(), F_UNLCK, offset_, length_); }

 private:
  P<CFileHandle> handle_;
  int64_t offset_;
  int64_t length_;
  bool unsynced_ = false;  // written to since the last flush
};

class CLocalFileStream final : public CBase,
                               public IIOStream,
                               public IFileIdentity,
                               public IDataRegions,
                               public IRangeCopy,
                               public IWriteBack {
 public:
  CLocalFileStream(const P<CFileHandle>& handle, const CURI& uri, Access access, int64_t length)
      : handle_(handle), uri_(uri), access_(access), length_(length) {}

  int64_t getLength() override {
    checkOpen();
    return length_;
  }

  int64_t getPosition() override {
    checkOpen();
    return position_;
  }

  CURI getURI() override { return uri_; }

  void seek(int64_t position) override {
    checkOpen();
    if (position > length_) refreshLength();
    if (position < 0 || position > length_) throwBadSeek(uri_, position, length_);
    position_ = position;
  }

  P<IStreamLock> lockRange(int64_t offset, int64_t length, LockType type) override {
    checkOpen();
    checkLockRange(offset, length, "CLocalFileSystem::lockRange");
    // The system would refuse these with EBADF; say why instead.
    if (type == LOCK_EXCLUSIVE && !(access_ & ACCESS_WRITE)) throwAccessMismatch(uri_, true);
    if (type != LOCK_EXCLUSIVE && !(access_ & ACCESS_READ)) throwAccessMismatch(uri_, false);
    const int error =
        setRangeLock(handle_->get(), type == LOCK_EXCLUSIVE ? F_WRLCK : F_RDLCK, offset, length);
    if (error != 0) {
      throwSystemError("Locking a file range", error, uri_, true,
                       CProps().add("offset", offset).add("length", length));
    }
    return P<IStreamLock>::adopt(new CLocalStreamLock(handle_, offset, length));
  }

  void close() override { handle_ = nullptr; }

  void read(void* buffer, int size) override {
    checkIOSize(size, "CLocalFileSystem::read");
    checkReadable();
    if (size > length_ - position_) {
      refreshLength();
      if (size > length_ - position_) throwReadPastEnd(uri_, position_, size, length_);
    }
    if (readAt(buffer, size, position_) < size) {
      // Somebody shortened the file since its length was learned.
      refreshLength();
      throwReadPastEnd(uri_, position_, size, length_);
    }
    position_ += size;
  }

  int readLax(void* buffer, int size) override {
    checkIOSize(size, "CLocalFileSystem::readLax");
    checkReadable();
    if (size > length_ - position_) refreshLength();
    const int wanted = static_cast<int>(std::min<int64_t>(size, std::max<int64_t>(0, length_ - position_)));
    const int got = wanted > 0 ? readAt(buffer, wanted, position_) : 0;
    position_ += got;
    return got;
  }

  int readAvailable(void* buffer, int size) override { return readLax(buffer, size); }

  bool waitReadable(int) override {
    checkOpen();
    return true;
  }

  bool isEndOfStream() override {
    checkOpen();
    if (position_ >= length_) refreshLength();
    return position_ >= length_;
  }

  int isEndOfStream_NonBlocking() override { return isEndOfStream() ? 1 : 0; }

  void write(const void* data, int size, IWriteBarrier*) override {
    checkIOSize(size, "CLocalFileSystem::write");
    checkWritable();
    const auto* bytes = static_cast<const unsigned char*>(data);
    unsynced_ = true;
    int done = 0;
    while (done < size) {
      const ssize_t result = ::pwrite(handle_->get(), bytes + done, static_cast<size_t>(size - done),
                                      static_cast<off_t>(position_ + done));
      if (result < 0 && errno == EINTR) continue;
      if (result <= 0) {
        const int error = result < 0 ? errno : ENOSPC;
        length_ = std::max(length_, position_ + done);
        throwSystemError("Writing to the file", error, uri_, false,
                         CProps().add("position", position_ + done).add("bytesToWrite", size - done));
      }
      done += static_cast<int>(result);
    }
    if (writeBackInterval_ > 0) startWriteBack(position_, size);
    position_ += size;
    length_ = std::max(length_, position_);
  }

  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) override {
    if (data.getLength() > static_cast<size_t>(std::numeric_limits<int>::max())) {
      throw CInvalidArgError("CLocalFileSystem::writeKeepBuffer", "Slice too large",
                             CProps().add("size", static_cast<uint64_t>(data.getLength())));
    }
    write(data.getData(), static_cast<int>(data.getLength()), barrier);
  }

  P<IWriteBarrier> createWriteBarrier(IWriteBarrier*) override {
    flush();
    return P<IWriteBarrier>::adopt(new CDummyWriteBarrier());
  }

  // Waits for the device only when this stream wrote since the last time: a
  // stream that only read must not pay for a device flush when it closes.
  void flush() override {
    checkOpen();
    if (!unsynced_) return;
    int result;
    do {
      result = ::fdatasync(handle_->get());
    } while (result < 0 && errno == EINTR);
    if (result < 0) throwSystemError("Flushing the file to the device", errno, uri_);
    unsynced_ = false;
  }

  void setWriteBackInterval(int64_t bytes) override {
    writeBackInterval_ = std::max<int64_t>(0, bytes);
    pendingBytes_ = 0;
  }

  // Starts the device's writeback of what was written since the last time
  // once it reaches the interval; its failures the next flush reports.
  void startWriteBack(int64_t position, int64_t size) {
    if (pendingBytes_ == 0) {
      pendingStart_ = position;
      pendingEnd_ = position + size;
    } else {
      pendingStart_ = std::min(pendingStart_, position);
      pendingEnd_ = std::max(pendingEnd_, position + size);
    }
    pendingBytes_ += size;
    if (pendingBytes_ < writeBackInterval_) return;
    ::sync_file_range(handle_->get(), static_cast<off64_t>(pendingStart_),
                      static_cast<off64_t>(pendingEnd_ - pendingStart_), SYNC_FILE_RANGE_WRITE);
    pendingBytes_ = 0;
  }

  void setLength(int64_t length) override {
    checkWritable();
    if (length < 0) {
      throw CInvalidArgError("CLocalFileSystem::setLength", "Negative length",
                             CProps().add("length", length));
    }
    unsynced_ = true;
    int result;
    do {
      result = ::ftruncate(handle_->get(), static_cast<off_t>(length));
    } while (result < 0 && errno == EINTR);
    if (result < 0) throwSystemError("Setting the file length", errno, uri_);
    length_ = length;
  }

  bool copyFrom(IIOStream& source, int64_t sourceOffset, int64_t length) override {
    checkWritable();
    auto* local = dynamic_cast<CLocalFileStream*>(&source);
    if (!local || !local->handle_ || length < 0 || sourceOffset < 0) return false;
    loff_t from = static_cast<loff_t>(sourceOffset);
    loff_t to = static_cast<loff_t>(position_);
    int64_t done = 0;
    unsynced_ = true;
    while (done < length) {
      const ssize_t copied = ::copy_file_range(local->handle_->get(), &from, handle_->get(), &to,
                                               static_cast<size_t>(length - done), 0);
      if (copied < 0 && errno == EINTR) continue;
      if (copied < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP ||
                         errno == EBADF)) {
        length_ = std::max(length_, position_ + done);
        return false;
      }
      if (copied < 0) {
        const int error = errno;
        length_ = std::max(length_, position_ + done);
        throwSystemError("Copying into the file", error, uri_, false,
                         CProps().add("position", position_ + done).add("bytesToCopy", length - done));
      }
      if (copied == 0) {  // the source ended first
        length_ = std::max(length_, position_ + done);
        return false;
      }
      done += copied;
    }
    position_ += length;
    length_ = std::max(length_, position_);
    return true;
  }

  bool findData(int64_t position, int64_t& dataStart, int64_t& dataEnd) override {
    checkOpen();
    refreshLength();
    if (position >= length_) return false;
    const off_t start = ::lseek(handle_->get(), static_cast<off_t>(position), SEEK_DATA);
    if (start < 0) {
      if (errno == ENXIO) return false;  // holes to the end
      if (errno != EINVAL && errno != EOPNOTSUPP) throwSystemError("Looking for data in the file", errno, uri_);
      dataStart = position;  // the system can't tell: all of it is data
      dataEnd = length_;
      return true;
    }
    const off_t end = ::lseek(handle_->get(), start, SEEK_HOLE);
    if (end < 0) throwSystemError("Looking for a hole in the file", errno, uri_);
    dataStart = static_cast<int64_t>(start);
    dataEnd = std::min<int64_t>(static_cast<int64_t>(end), length_);
    return dataStart < dataEnd;
  }

  int checkSameFile(const CURI& uri) override {
    checkOpen();
    std::string path;
    try {
      path = CLocalFileSystem::getLocalPath(uri);
    } catch (const CFileSystemError&) {
      return 0;  // a name that isn't local can't lead to this file
    }
    struct stat mine;
    struct stat named;
    if (::fstat(handle_->get(), &mine) < 0) return -1;
    if (::stat(path.c_str(), &named) < 0) return errno == ENOENT || errno == ENOTDIR ? 0 : -1;
    return mine.st_dev == named.st_dev && mine.st_ino == named.st_ino ? 1 : 0;
  }

 private:
  void checkOpen() const {
    if (!handle_) throwStreamClosed();
  }
  void checkReadable() const {
    checkOpen();
    if (!(access_ & ACCESS_READ)) throwAccessMismatch(uri_, false);
  }
  void checkWritable() const {
    checkOpen();
    if (!(access_ & ACCESS_WRITE)) throwAccessMismatch(uri_, true);
  }

  void refreshLength() {
    struct stat info;
    if (::fstat(handle_->get(), &info) < 0) throwSystemError("Reading the file length", errno, uri_);
    length_ = static_cast<int64_t>(info.st_size);
  }

  // Reads until `size` bytes are in or the file ends; gives the count.
  int readAt(void* buffer, int size, int64_t offset) {
    auto* bytes = static_cast<unsigned char*>(buffer);
    int done = 0;
    while (done < size) {
      const ssize_t result = ::pread(handle_->get(), bytes + done, static_cast<size_t>(size - done),
                                     static_cast<off_t>(offset + done));
      if (result < 0 && errno == EINTR) continue;
      if (result < 0) {
        throwSystemError("Reading from the file", errno, uri_, false, CProps().add("position", offset + done));
      }
      if (result == 0) break;
      done += static_cast<int>(result);
    }
    return done;
  }

  P<CFileHandle> handle_;  // null once closed
  CURI uri_;
  Access access_;
  int64_t position_ = 0;  // may lie past the end after the file was shortened
  int64_t length_;
  bool unsynced_ = false;  // written to since the last flush
  int64_t writeBackInterval_ = 0;  // 0: pages are left to the system
  int64_t pendingStart_ = 0;  // the range written since the last hand-over
  int64_t pendingEnd_ = 0;
  int64_t pendingBytes_ = 0;
};

}  // namespace

std::string CLocalFileSystem::getLocalPath(const CURI& uri) {
  const auto& host = uri.getHostOptRef();
  if (!uri.getScheme().IsSameAs("file", false) ||
      (host && !host->isEmpty() && !host->IsSameAs("localhost", false))) {
    throw CFileSystemError(FSPROB_NOT_SUPPORTED, CError(String("Not a local file URI: ") + uri.toString(true),
                                                        String(), -1, makeURIProps(uri)));
  }
  std::string path;
  if (!uri.tryGetPathBytes(path)) {
    throw CFileSystemError(FSPROB_BAD_NAME,
                           CError(String("A name in the file URI holds an escaped \"/\" or zero byte: ") +
                                      uri.toString(true),
                                  String(), -1, makeURIProps(uri)));
  }
  if (path.empty() || path[0] != '/') {
    throw CFileSystemError(FSPROB_BAD_NAME, CError(String("Not an absolute file path: ") + uri.toString(true),
                                                   String(), -1, makeURIProps(uri)));
  }
  return path;
}

P<IIOStream> CLocalFileSystem::openFile(const CURI& uri, IIOStream::Access access, int&) {
  int mode;
  switch (access) {
    case IIOStream::ACCESS_READ: mode = O_RDONLY; break;
    case IIOStream::ACCESS_WRITE: mode = O_WRONLY | O_CREAT; break;
    case IIOStream::ACCESS_READ_WRITE: mode = O_RDWR | O_CREAT; break;
    default:
      throw CInvalidArgError("CLocalFileSystem::openFile", "Bad access",
                             makeURIProps(uri).add("access", int64_t{access}));
  }
  const std::string path = getLocalPath(uri);
  // A FIFO would block the open until a writer or reader came, and a
  // terminal could become ours: open without waiting, then look at what was
  // opened. Only regular files are taken.
  int fd;
  do {
    fd = ::open(path.c_str(), mode | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, kNewFileMode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    const int error = errno;
    // A FIFO without a reader, a socket, a device without a driver.
    struct stat named;
    if (error == ENXIO && ::stat(path.c_str(), &named) == 0 && !S_ISREG(named.st_mode)) {
      throwNotRegularFile(uri, named.st_mode);
    }
    throwSystemError("Opening the file", error, uri);
  }
  P<CFileHandle> handle = create<CFileHandle>(fd);
  struct stat info;
  if (::fstat(fd, &info) < 0) throwSystemError("Opening the file", errno, uri);
  // A read-only open of a directory succeeds on POSIX systems.
  if (S_ISDIR(info.st_mode)) throwSystemError("Opening the file", EISDIR, uri);
  if (!S_ISREG(info.st_mode)) throwNotRegularFile(uri, info.st_mode);
  const int statusFlags = ::fcntl(fd, F_GETFL);
  if (statusFlags < 0 || ::fcntl(fd, F_SETFL, statusFlags & ~O_NONBLOCK) < 0) {
    throwSystemError("Opening the file", errno, uri);
  }
  return P<IIOStream>::adopt(new CLocalFileStream(handle, uri, access, static_cast<int64_t>(info.st_size)));
}

bool CLocalFileSystem::fileExists(const CURI& uri) {
  const std::string path = getLocalPath(uri);
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode);
}

void CLocalFileSystem::deleteFile(const CURI& uri, bool missingIsOk) {
  const std::string path = getLocalPath(uri);
  if (::unlink(path.c_str()) == 0) return;
  const int error = errno;
  if (error == ENOENT && missingIsOk) return;
  throwSystemError("Deleting the file", error, uri);
}

void CLocalFileSystem::renameFile(const CURI& from, const CURI& to) {
  const std::string fromPath = getLocalPath(from), toPath = getLocalPath(to);
  if (::rename(fromPath.c_str(), toPath.c_str()) != 0) throwSystemError("Renaming the file", errno, from);
  posix::syncFolderOf(toPath);
}

}  // namespace kx

namespace kx {
namespace posix {

void syncFolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;  // the name is in place; only its durability is left to the system
  ::fsync(fd);
  ::close(fd);
}

P<IIOStream> adoptLocalFileStream(int fd, const CURI& uri, IIOStream::Access access) {
  P<CFileHandle> handle = create<CFileHandle>(fd);
  struct stat info;
  if (::fstat(fd, &info) < 0) throwSystemError("Opening the file", errno, uri);
  return P<IIOStream>::adopt(new CLocalFileStream(handle, uri, access, static_cast<int64_t>(info.st_size)));
}

void throwLocalSystemError(const char* operation, int error, const CURI& uri) {
  throwSystemError(operation, error, uri);
}

}  // namespace posix
}  // namespace kx
