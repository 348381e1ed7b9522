// What the local file system adds to the common contract (see
// file_system_contract_test.cc): URIs it accepts, errors of the system, names
// on disk, other writers and other processes.
#include "kx/local_file_system.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kx/error.h"
#include "tests/support/temp_dir.h"

namespace {

class LocalFileSystemTest : public testing::Test {
 protected:
  kx::P<kx::IIOStream> open(const kx::CURI& uri,
                            kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
    int flags = 0;
    return fs_->openFile(uri, access, flags);
  }

  template <class Fn>
  kx::CFileSystemError expectProblem(Fn fn, int problem) {
    try {
      fn();
    } catch (const kx::CFileSystemError& e) {
      EXPECT_EQ(e.getProblem(), problem) << e.what();
      return e;
    }
    ADD_FAILURE() << "no error";
    return kx::CFileSystemError(kx::FSPROB_OTHER, kx::CError("none"));
  }

  static size_t countOpenDescriptors() {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                             std::filesystem::directory_iterator()));
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
};

TEST_F(LocalFileSystemTest, RefusesURIsThatAreNotLocal) {
  const std::string path = dir_.getPath() + "/f";
  for (const std::string& text : {"http://example.com" + path, "file://otherhost" + path, std::string("f")}) {
    SCOPED_TRACE(text);
    const kx::CURI uri{kx::String(text)};
    expectProblem([&] { open(uri); }, kx::FSPROB_NOT_SUPPORTED);
    expectProblem([&] { fs_->fileExists(uri); }, kx::FSPROB_NOT_SUPPORTED);
    expectProblem([&] { fs_->deleteFile(uri, true); }, kx::FSPROB_NOT_SUPPORTED);
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  open(kx::CURI(kx::String("file://LocalHost" + path)))->write("x", 1, nullptr);
  EXPECT_EQ(std::filesystem::file_size(path), 1u);
}

TEST_F(LocalFileSystemTest, SystemErrorsNameOperationReasonAndURI) {
  const kx::CURI missing = dir_.getFileURI("missing");
  const kx::CFileSystemError error =
      expectProblem([&] { open(missing, kx::IIOStream::ACCESS_READ); }, kx::FSPROB_NOT_FOUND);
  EXPECT_EQ(error.getMessage(), "Opening the file failed (" + std::string(std::strerror(ENOENT)) +
                                    "): " + missing.toString(true).toUTF8());
  EXPECT_EQ(error.getProps().get("uri"), missing.toString(true));
  EXPECT_EQ(error.getProps().get("systemErrorCode"), std::to_string(ENOENT));

  expectProblem([&] { open(dir_.getFileURI("no-such-folder/f")); }, kx::FSPROB_NOT_FOUND);
  expectProblem([&] { fs_->deleteFile(missing, false); }, kx::FSPROB_NOT_FOUND);
}

TEST_F(LocalFileSystemTest, DirectoryIsNoFile) {
  std::filesystem::create_directory(dir_.getPath() + "/sub");
  const kx::CURI sub = dir_.getFileURI("sub");
  for (auto access : {kx::IIOStream::ACCESS_READ, kx::IIOStream::ACCESS_READ_WRITE}) {
    const kx::CFileSystemError error = expectProblem([&] { open(sub, access); }, kx::FSPROB_OTHER);
    EXPECT_NE(error.getMessage().toUTF8().find(std::strerror(EISDIR)), std::string::npos);
  }
  EXPECT_FALSE(fs_->fileExists(sub));
  EXPECT_THROW(fs_->deleteFile(sub, true), kx::CFileSystemError);
}

TEST_F(LocalFileSystemTest, PermissionDenied) {
  if (::geteuid() == 0) GTEST_SKIP() << "root passes every permission check";
  const kx::CURI uri = dir_.getFileURI("secret");
  open(uri);
  ASSERT_EQ(::chmod((dir_.getPath() + "/secret").c_str(), 0), 0);
  expectProblem([&] { open(uri, kx::IIOStream::ACCESS_READ); }, kx::FSPROB_ACCESS_DENIED);
  ASSERT_EQ(::chmod(dir_.getPath().c_str(), 0500), 0);
  expectProblem([&] { open(dir_.getFileURI("new")); }, kx::FSPROB_ACCESS_DENIED);
  expectProblem([&] { fs_->deleteFile(uri, false); }, kx::FSPROB_ACCESS_DENIED);
  ::chmod(dir_.getPath().c_str(), 0700);
}

TEST_F(LocalFileSystemTest, NonASCIINamesReachTheDiskAsTheirUTF8Bytes) {
  const std::string name =
      "gr\xC3\xBCn \xE3\x83\x87\xE3\x82\xA3\xE3\x82\xB9\xE3\x82\xAF.vmdk";  // "grün ディスク.vmdk"
  const kx::CURI uri = dir_.getFileURI(name);
  EXPECT_NE(uri.toString().toUTF8().find("%C3%BC"), std::string::npos);
  open(uri)->write("data", 4, nullptr);

  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir_.getPath())) {
    names.push_back(entry.path().filename().string());
  }
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(names[0], name);
  // The escaped text parsed anew names the same file.
  EXPECT_EQ(open(kx::CURI(uri.toString()), kx::IIOStream::ACCESS_READ)->getLength(), 4);
}

TEST_F(LocalFileSystemTest, SeesChangesOfOtherWriters) {
  const kx::CURI uri = dir_.getFileURI("f");
  const std::string path = dir_.getPath() + "/f";
  kx::P<kx::IIOStream> stream = open(uri);
  stream->write("abc", 3, nullptr);
  std::ofstream(path, std::ios::app) << "defg";
  stream->seek(7);  // past the length this stream knew
  stream->seek(3);
  char buffer[4];
  stream->read(buffer, 4);
  EXPECT_EQ(std::string(buffer, 4), "defg");

  std::filesystem::resize_file(path, 2);
  stream->seek(0);
  stream->getLength();  // still the old length: it is learned only when needed
  char more[5];
  try {
    stream->read(more, 5);
    FAIL() << "no error";
  } catch (const kx::CIOError& e) {
    EXPECT_EQ(e.getCode(), kx::IOERR_READ_PAST_END);
  }
  EXPECT_EQ(stream->getPosition(), 0);
  EXPECT_EQ(stream->getLength(), 2);
}

TEST_F(LocalFileSystemTest, DescriptorClosesWithTheLastOfStreamAndLock) {
  const size_t before = countOpenDescriptors();
  kx::P<kx::IIOStream> stream = open(dir_.getFileURI("f"));
  kx::P<kx::IStreamLock> lock = stream->lockRange(0, 1, kx::IStreamBase::LOCK_EXCLUSIVE);
  EXPECT_EQ(countOpenDescriptors(), before + 1);
  stream->close();
  EXPECT_EQ(countOpenDescriptors(), before + 1);
  lock = nullptr;
  EXPECT_EQ(countOpenDescriptors(), before);
}

// The child's exit code says whether it could take the lock: 0 yes, 1 no.
int lockInChild(const kx::CURI& uri, kx::IStreamBase::LockType type) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    int code = 2;
    try {
      int flags = 0;
      kx::P<kx::IIOStream> stream =
          kx::CLocalFileSystem().openFile(uri, kx::IIOStream::ACCESS_READ_WRITE, flags);
      stream->lockRange(0, 1, type);
      code = 0;
    } catch (const kx::CFileSystemError& e) {
      code = e.getProblem() == kx::FSPROB_LOCKED ? 1 : 3;
    } catch (...) {
    }
    ::_exit(code);  // no destructors or test teardown of the parent's copies
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(LocalFileSystemTest, LocksConflictWithOtherProcesses) {
  const kx::CURI uri = dir_.getFileURI("f");
  kx::P<kx::IIOStream> stream = open(uri);
  {
    kx::P<kx::IStreamLock> lock = stream->lockRange(0, 1, kx::IStreamBase::LOCK_SHARED);
    EXPECT_EQ(lockInChild(uri, kx::IStreamBase::LOCK_SHARED), 0);
    EXPECT_EQ(lockInChild(uri, kx::IStreamBase::LOCK_EXCLUSIVE), 1);
  }
  EXPECT_EQ(lockInChild(uri, kx::IStreamBase::LOCK_EXCLUSIVE), 0);
}

}  // namespace
