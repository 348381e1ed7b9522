// kx::CMemoryFileSystem: files that live in memory.
//
// It behaves like kx::CLocalFileSystem where the layers above can see it, so
// tests can run the whole library without touching the disk, and wrappers can
// be stacked on it. Files are keyed by the normalized text of their URI; there
// are no folders, and any scheme is accepted.
//
// Streams are unbuffered kx::IIOStream objects that also implement
// kx::IFileIdentity. A stream keeps its file alive: a file deleted while open
// stays readable and writable through the streams that have it, like an
// unlinked file on a POSIX system. writeKeepBuffer copies like write and
// keeps nothing; flush does nothing, since a file that lives in memory has no
// stable storage to reach and is gone with the process anyway.
//
// Byte-range locks follow the local file system's rules: locks taken through
// one stream never conflict with each other; a lock conflicts with a lock of
// another stream (another open, in this process or not) when the ranges
// overlap and one of the two is exclusive. A lock lives as long as its
// kx::IStreamLock object, even past close() of its stream.
//
// Thread rules: the file system may be used from several threads; each stream
// by one thread at a time. Reference counting as for every kx::CBase.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "kx/buffer.h"
#include "kx/file_system.h"

namespace kx {

class CMemoryFile;
class CMemoryFileStream;

class CMemoryFileSystem final : public CBase, public IFileSystem {
 public:
  CMemoryFileSystem();
  ~CMemoryFileSystem() override;
  CMemoryFileSystem(const CMemoryFileSystem&) = delete;
  CMemoryFileSystem& operator=(const CMemoryFileSystem&) = delete;

  // Access 1 on a missing file raises kx::CFileSystemError FSPROB_NOT_FOUND
  // ("File not found: " + URI); access 2 and 3 make a missing file. An empty
  // URI or one whose path ends in "/" raises FSPROB_BAD_NAME. `flags` is not
  // looked at.
  P<IIOStream> openFile(const CURI& uri, IIOStream::Access access, int& flags) override;
  bool fileExists(const CURI& uri) override;
  // Streams that have the file open keep their copy alive.
  void deleteFile(const CURI& uri, bool missingIsOk) override;
  void renameFile(const CURI& from, const CURI& to) override;

  // Helpers for tests. getFileData gives a copy of the file's bytes and
  // raises FSPROB_NOT_FOUND for a missing file; setFileData makes the file or
  // replaces its bytes (open streams see the new bytes and keep their
  // positions); listFiles gives the URIs of all files, in the order of their
  // normalized text, as they were first opened or set.
  TBuffer<unsigned char> getFileData(const CURI& uri);
  void setFileData(const CURI& uri, const void* data, size_t size);
  std::vector<CURI> listFiles();

 private:
  friend class CMemoryFileStream;
  // The file that `uri` names, or null.
  P<CMemoryFile> findFile(const CURI& uri);

  struct Files;
  std::unique_ptr<Files> files_;
};

}  // namespace kx
