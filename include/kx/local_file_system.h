// kx::CLocalFileSystem: the files of the machine, reached by "file:" URIs.
//
// A URI names a local file when its scheme is "file" and its host is missing,
// empty or "localhost"; the bytes that its path's escapes stand for are the
// path handed to the operating system (CURI::tryGetPathBytes), so "%C3%A9"
// reaches the disk as those two bytes and "%E9" as one. Other URIs raise
// kx::CFileSystemError FSPROB_NOT_SUPPORTED; a path that isn't absolute, or
// a segment with an escaped "/" or a zero byte, raises FSPROB_BAD_NAME.
//
// Errors of the operating system become kx::CFileSystemError: the message
// names the operation and carries the system's own text, the properties hold
// "uri" and "systemErrorCode". Problems: a missing file or folder is
// FSPROB_NOT_FOUND, a refused permission FSPROB_ACCESS_DENIED, a full disk or
// quota FSPROB_NO_SPACE, a lock held elsewhere FSPROB_LOCKED, a directory
// where a file should be FSPROB_OTHER, anything else mostly FSPROB_IO.
//
// Only regular files open. Opening never waits: a FIFO, a device or a socket
// is refused with FSPROB_OTHER and a message that names what it is.
//
// Streams are unbuffered: each read or write is a positional system call at
// the stream's own position (pread/pwrite or their equivalents), so streams
// on one file never disturb each other's positions. The length is kept by the
// stream and learned again from the system only when a read or seek goes past
// it, so a file that another writer made longer is still seen.
//
// Written data is in the operating system's cache as soon as write returns and
// survives a crash of the process. flush() (and createWriteBarrier, which
// flushes) waits until the device has it (fdatasync), so that it survives a
// power loss too; a stream that wrote nothing since its last flush doesn't
// wait. That wait is the price of a flush: callers flush at the points where
// order on the device matters, not after every write.
//
// Byte-range locks belong to the open file (one openFile call), not to the
// process: two streams of one process conflict like two processes do, and
// a lock is released when its kx::IStreamLock object goes, or when the last
// stream and lock of that open are gone (also when the process ends). A lock
// keeps the file open even after close() of its stream.
//
// Streams also implement kx::IFileIdentity. The file system object has no
// state; it and different streams may be used from several threads, each
// stream by one thread at a time.
#pragma once

#include <string>

#include "kx/file_system.h"

namespace kx {

class CLocalFileSystem final : public CBase, public IFileSystem {
 public:
  CLocalFileSystem() = default;

  // Access 1 opens read-only; 2 and 3 open for writing (3 also for reading)
  // and make a missing file with permissions 0644 less the process's umask.
  // Opening anything but a regular file fails, without blocking. The
  // stream's getURI gives `uri` as passed.
  P<IIOStream> openFile(const CURI& uri, IIOStream::Access access, int& flags) override;
  // True for an existing entry that isn't a directory; false also when the
  // name can't be examined. Raises for a URI that isn't local.
  bool fileExists(const CURI& uri) override;
  void deleteFile(const CURI& uri, bool missingIsOk) override;
  void renameFile(const CURI& from, const CURI& to) override;

  // The operating system's path of a local file URI, as bytes. Raises as
  // openFile does for a URI that isn't local or a path that isn't absolute.
  static std::string getLocalPath(const CURI& uri);
};

}  // namespace kx
