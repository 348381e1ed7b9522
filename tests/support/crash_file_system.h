// test::CCrashRecordingFileSystem: a wrapper over an in-memory file system
// that records every change reaching it — writes with their bytes, length
// changes, creations, deletions — and every flush, so a test can rebuild the
// files as a crash at any moment would have left them:
//
//   auto recorder = kx::create<test::CCrashRecordingFileSystem>(memoryFs);
//   ... work over `recorder` ...
//   for (int n = 0; n <= recorder->getChangeCount(); ++n) {
//     auto killed = recorder->rebuild(n, test::CrashKind::ProcessKilled);
//     auto unplugged = recorder->rebuild(n, test::CrashKind::PowerLost);
//   }
//
// ProcessKilled before change n: every earlier change reached the file system
// (the kernel keeps what a killed process wrote). PowerLost before change n:
// of the earlier writes and length changes only those that a later flush of
// the same file (before n) covered survive; creations, deletions and renames
// count at once, as on a file system that journals its names. A single write is never
// torn, as with the page cache of one write call.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kx/file_system_wrapper.h"
#include "kx/memory_file_system.h"

namespace test {

enum class CrashKind { ProcessKilled, PowerLost };

class CCrashRecordingFileSystem final : public kx::CFileSystemWrapper {
 public:
  // The target's files as they are now are the state before change 0.
  explicit CCrashRecordingFileSystem(const kx::P<kx::CMemoryFileSystem>& target);

  kx::P<kx::IIOStream> openFile(const kx::CURI& uri, kx::IIOStream::Access access, int& flags) override;
  void deleteFile(const kx::CURI& uri, bool missingIsOk) override;
  void renameFile(const kx::CURI& from, const kx::CURI& to) override;

  // Changes recorded so far; flushes are not counted.
  int getChangeCount() const;
  // A new file system holding the files as a crash before change `n` (0 to
  // getChangeCount()) leaves them.
  kx::P<kx::CMemoryFileSystem> rebuild(int n, CrashKind kind) const;

  // Called by the streams; not for tests.
  void recordWrite(const kx::CURI& uri, int64_t position, const void* data, int size);
  void recordSetLength(const kx::CURI& uri, int64_t length);
  void recordFlush(const kx::CURI& uri);

 private:
  struct Change {
    enum Kind { Create, Write, SetLength, Delete, Rename, Flush } kind;
    std::string key;
    kx::CURI uri;
    int64_t position = 0;  // write position, or the new length
    std::vector<unsigned char> bytes;
    kx::CURI to;  // the new name of a rename
    Change(Kind kind, const kx::CURI& uri, int64_t position = 0, std::vector<unsigned char> bytes = {},
           const kx::CURI& to = kx::CURI());
  };
  void record(Change change);

  kx::P<kx::CMemoryFileSystem> target_;
  std::map<std::string, std::pair<kx::CURI, std::vector<unsigned char>>> initial_;
  mutable std::mutex mutex_;
  std::vector<Change> changes_;  // flushes included
  int changeCount_ = 0;
};

}  // namespace test
