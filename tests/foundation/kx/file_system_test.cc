// Streams and file systems: the contract that the memory, local and buffer
// streams keep, then what each file system adds.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kx/buffer_stream.h"
#include "kx/error.h"
#include "kx/file_identity.h"
#include "kx/local_file_system.h"
#include "kx/memory_file_system.h"
#include "kx/data_regions.h"
#include "kx/range_copy.h"
#include "tests/support/caught_error.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/temp_dir.h"

namespace {

using test::FileOp;
using Access = kx::IIOStream::Access;
constexpr auto kRead = kx::IIOStream::ACCESS_READ;
constexpr auto kReadWrite = kx::IIOStream::ACCESS_READ_WRITE;
constexpr auto kShared = kx::IStreamBase::LOCK_SHARED;
constexpr auto kExclusive = kx::IStreamBase::LOCK_EXCLUSIVE;

kx::P<kx::IIOStream> openFile(kx::IFileSystem& fs, const kx::CURI& uri, Access access = kReadWrite) {
  int flags = 0;
  return fs.openFile(uri, access, flags);
}
void write(kx::IIOStream& stream, const std::string& text) {
  stream.write(text.data(), static_cast<int>(text.size()), nullptr);
}
std::string read(kx::IIOStream& stream, int size) {
  std::string text(static_cast<size_t>(size), '\0');
  stream.read(text.data(), size);
  return text;
}
// The problem of the kx::CFileSystemError that `fn` raises, or -1.
int fsProblem(const std::function<void()>& fn) {
  return test::caught(fn, kx::CFileSystemError(-1, kx::CError(""))).getProblem();
}

// A buffer stream has no file system: its "files" are buffers kept by name,
// and the tests of what only a file system does skip it.
enum class Kind { Memory, Local, Buffer };

class StreamContractTest : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    if (GetParam() == Kind::Local) fs_ = kx::create<kx::CLocalFileSystem>();
    if (GetParam() == Kind::Memory) fs_ = kx::create<kx::CMemoryFileSystem>();
  }

  kx::CURI uri(const char* name) const { return dir_.getFileURI(name); }
  kx::P<kx::IIOStream> open(const char* name, Access access = kReadWrite) {
    if (fs_) return openFile(*fs_, uri(name), access);
    auto& buffer = buffers_[name];
    if (!buffer) buffer = kx::create<kx::TBuffer<unsigned char>>();
    return kx::create<kx::CBufferStream>(buffer, 2.0, uri(name));
  }

  test::CTempDir dir_;  // names for all kinds; only the local file system makes files there
  kx::P<kx::IFileSystem> fs_;
  std::map<std::string, kx::P<kx::TBuffer<unsigned char>>> buffers_;
};

TEST_P(StreamContractTest, WritesAreSeenByOtherOpensAndAfterReopening) {
  kx::P<kx::IIOStream> stream = open("f");
  kx::P<kx::IIOStream> other = open("f");
  write(*stream, "hello world");
  stream->seek(6);
  write(*stream, "WORLD!");  // overwrites 5 bytes and extends by 1
  auto buffer = kx::create<kx::TBuffer<unsigned char>>(6);
  std::memcpy(buffer->getData(), "xyzuvw", 6);
  stream->writeKeepBuffer(kx::TConstBufferSlice<unsigned char>(buffer, 1, 4), nullptr);
  ASSERT_TRUE(stream->createWriteBarrier(nullptr));
  stream->flush();
  EXPECT_EQ(stream->getPosition(), 16);
  EXPECT_EQ(read(*other, 16), "hello WORLD!yzuv");  // the other learns the new length by reading
  EXPECT_TRUE(other->isEndOfStream());
  EXPECT_EQ(other->isEndOfStream_NonBlocking(), 1);
  other->seek(2);
  write(*other, "XYZ");
  stream->seek(0);
  EXPECT_EQ(read(*stream, 6), "heXYZ ");
  stream->close();
  other = nullptr;
  EXPECT_EQ(read(*open("f", kRead), 16), "heXYZ WORLD!yzuv");
}

// Failed reads and seeks keep the position; bytes cut by setLength come back
// as zeros, and so does the gap that a write from past the end leaves.
TEST_P(StreamContractTest, PastTheEnd) {
  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "0123456789");
  for (int64_t position : {int64_t{-1}, int64_t{11}, int64_t{1} << 40}) {
    EXPECT_EQ(test::ioErrorCode([&] { stream->seek(position); }), kx::IOERR_BAD_SEEK_POSITION);
  }
  stream->seek(6);
  char buffer[8] = {};
  EXPECT_EQ(test::ioErrorCode([&] { stream->read(buffer, 5); }), kx::IOERR_READ_PAST_END);
  EXPECT_EQ(stream->getPosition(), 6);
  EXPECT_EQ(stream->readLax(buffer, 8), 4);
  EXPECT_EQ(std::string(buffer, 4), "6789");
  EXPECT_EQ(stream->readAvailable(buffer, 8), 0);
  EXPECT_TRUE(stream->waitReadable(0));

  stream->setLength(3);
  stream->setLength(5);
  stream->seek(0);
  EXPECT_EQ(read(*stream, 5), std::string("012\0\0", 5));
  stream->setLength(2);
  EXPECT_EQ(stream->readLax(buffer, 1), 0);
  write(*stream, "!");
  stream->seek(0);
  EXPECT_EQ(read(*stream, 6), std::string("01\0\0\0!", 6));
}

TEST_P(StreamContractTest, ClosedStreamRefusesEverythingButGetURIAndClose) {
  kx::P<kx::IIOStream> stream = open("f");
  stream->close();
  char b[4];
  int i = 0;
  for (const auto& operation : std::initializer_list<std::function<void()>>{
           [&] { stream->getLength(); }, [&] { stream->getPosition(); }, [&] { stream->seek(0); },
           [&] { stream->read(b, 1); }, [&] { stream->readLax(b, 1); }, [&] { stream->readAvailable(b, 1); },
           [&] { stream->waitReadable(0); }, [&] { stream->isEndOfStream(); },
           [&] { stream->isEndOfStream_NonBlocking(); }, [&] { stream->write("x", 1, nullptr); },
           [&] { stream->createWriteBarrier(nullptr); }, [&] { stream->flush(); },
           [&] { stream->setLength(1); }, [&] { stream->lockRange(0, 1, kShared); }}) {
    const kx::CIOError e = test::caught(operation, kx::CIOError(0, ""));
    EXPECT_EQ(e.getCode(), kx::IOERR_STREAM_CLOSED) << "operation " << i++;
    EXPECT_EQ(e.getMessage(), "");
    EXPECT_TRUE(e.getProps().isEmpty());
  }
  EXPECT_EQ(stream->getURI(), uri("f"));
  stream->close();
}

// Opening, access, deletion and identity. An open stream keeps a deleted
// file, but no name leads to it any more.
TEST_P(StreamContractTest, FilesComeAndGoByName) {
  if (!fs_) GTEST_SKIP();
  const kx::CFileSystemError missing =
      test::caught([&] { open("f", kRead); }, kx::CFileSystemError(-1, kx::CError("")));
  EXPECT_EQ(missing.getProblem(), kx::FSPROB_NOT_FOUND);
  EXPECT_EQ(missing.getProps().get("uri"), uri("f").toString(true));
  EXPECT_EQ(fsProblem([&] { fs_->deleteFile(uri("f"), false); }), kx::FSPROB_NOT_FOUND);
  fs_->deleteFile(uri("f"), true);
  EXPECT_FALSE(fs_->fileExists(uri("f")));

  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "kept");
  kx::P<kx::IIOStream> reader = open("f", kRead);
  EXPECT_EQ(fsProblem([&] { write(*reader, "x"); }), kx::FSPROB_ACCESS_DENIED);
  EXPECT_EQ(fsProblem([&] { reader->setLength(1); }), kx::FSPROB_ACCESS_DENIED);
  EXPECT_EQ(fsProblem([&] { reader->lockRange(0, 1, kExclusive); }), kx::FSPROB_ACCESS_DENIED);
  reader->lockRange(0, 1, kShared);
  open("other");
  auto identity = kx::dynamicCast<kx::IFileIdentity>(stream);
  ASSERT_TRUE(identity);
  EXPECT_EQ(identity->checkSameFile(uri("f")), 1);
  EXPECT_EQ(identity->checkSameFile(uri("other")), 0);

  fs_->deleteFile(uri("f"), false);
  EXPECT_FALSE(fs_->fileExists(uri("f")));
  EXPECT_EQ(identity->checkSameFile(uri("f")), 0);
  stream->seek(0);
  EXPECT_EQ(read(*stream, 4), "kept");
  EXPECT_EQ(open("f")->getLength(), 0);  // a new file of the same name
  EXPECT_EQ(identity->checkSameFile(uri("f")), 0);

  // A rename replaces the target in one step; a stream keeps its file.
  write(*open("new"), "new text");
  kx::P<kx::IIOStream> old = open("old");
  write(*old, "old");
  fs_->renameFile(uri("new"), uri("old"));
  EXPECT_FALSE(fs_->fileExists(uri("new")));
  EXPECT_EQ(read(*open("old", kRead), 8), "new text");
  old->seek(0);
  EXPECT_EQ(read(*old, 3), "old");
  EXPECT_EQ(fsProblem([&] { fs_->renameFile(uri("new"), uri("old")); }), kx::FSPROB_NOT_FOUND);
}

// Locks of one open never conflict with each other. On the local file system
// they are locks of one open each (OFD), which conflict even within one process.
TEST_P(StreamContractTest, LocksConflictBetweenOpensByRangeAndTypeUntilTheirObjectGoes) {
  if (!fs_) GTEST_SKIP();
  const auto S = kShared, X = kExclusive;
  const struct {
    int64_t offsetA, lengthA;
    kx::IStreamBase::LockType typeA;
    int64_t offsetB, lengthB;
    kx::IStreamBase::LockType typeB;
    bool conflict;
  } cases[] = {
      {0, 1, X, 0, 1, X, true},         {0, 1, S, 0, 1, S, false},   {0, 1, S, 0, 1, X, true},
      {0, 1, X, 0, 1, S, true},         {0, 10, X, 10, 5, X, false}, {0, 10, X, 9, 5, X, true},
      {100, 0, X, 1 << 30, 1, S, true},  // length 0: to any end
  };
  kx::P<kx::IIOStream> a = open("f");
  kx::P<kx::IIOStream> b = open("f");
  int i = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(i++);
    kx::P<kx::IStreamLock> held = a->lockRange(c.offsetA, c.lengthA, c.typeA);
    const auto error = test::caught([&] { b->lockRange(c.offsetB, c.lengthB, c.typeB); },
                                    kx::CFileSystemError(-1, kx::CError("")));
    EXPECT_EQ(error.getProblem(), c.conflict ? kx::FSPROB_LOCKED : -1);
    EXPECT_EQ(error.getProps().get("uri"), c.conflict ? uri("f").toString(true) : "");
    a->lockRange(c.offsetB, c.lengthB, c.typeB);
  }

  // The lock outlives its closed stream; the local file's descriptor closes
  // with the last of the two.
  const auto countOpenDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  b = nullptr;
  const auto before = countOpenDescriptors();
  kx::P<kx::IStreamLock> lock = a->lockRange(0, 1, kExclusive);
  a->close();
  a = nullptr;
  b = open("f");
  EXPECT_EQ(fsProblem([&] { b->lockRange(0, 1, kShared); }), kx::FSPROB_LOCKED);
  lock = nullptr;
  EXPECT_TRUE(b->lockRange(0, 1, kExclusive));
  b = nullptr;
  EXPECT_EQ(countOpenDescriptors(), before - (GetParam() == Kind::Local ? 1 : 0));
}

const char* const kKindNames[] = {"Memory", "Local", "Buffer"};
INSTANTIATE_TEST_SUITE_P(AllStreams, StreamContractTest,
                         testing::Values(Kind::Memory, Kind::Local, Kind::Buffer),
                         [](const testing::TestParamInfo<Kind>& info) {
                           return std::string(kKindNames[static_cast<int>(info.param)]);
                         });

class LocalFileSystemTest : public testing::Test {
 protected:
  kx::P<kx::IIOStream> open(const kx::CURI& uri, Access access = kReadWrite) {
    return openFile(*fs_, uri, access);
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
};

// Where a sparse file holds data: runs of data are found, holes passed.
TEST_F(LocalFileSystemTest, DataRegionsPassOverHoles) {
  constexpr int64_t kMiB = 1 << 20;
  auto stream = open(dir_.getFileURI("sparse"));
  write(*stream, std::string(4096, 'a'));
  stream->setLength(16 * kMiB);
  stream->seek(8 * kMiB);
  write(*stream, std::string(4096, 'b'));
  auto regions = kx::dynamicCast<kx::IDataRegions>(stream);
  ASSERT_TRUE(regions);
  int64_t start = -1, end = -1;
  ASSERT_TRUE(regions->findData(0, start, end));
  if (end == 16 * kMiB) GTEST_SKIP() << "this file system doesn't report holes";
  EXPECT_EQ(start, 0);
  EXPECT_GE(end, 4096);
  EXPECT_LT(end, 8 * kMiB);
  ASSERT_TRUE(regions->findData(end, start, end));
  EXPECT_LE(start, 8 * kMiB);
  EXPECT_GE(end, 8 * kMiB + 4096);
  EXPECT_FALSE(regions->findData(end, start, end));
  EXPECT_FALSE(regions->findData(16 * kMiB, start, end));
}

// A range goes from file to file at the target's position; what the system
// can't copy that way is left to the caller, with the position unmoved.
TEST_F(LocalFileSystemTest, RangesCopyFromFileToFile) {
  auto source = open(dir_.getFileURI("source"));
  write(*source, "0123456789abcdef");
  auto target = open(dir_.getFileURI("target"));
  write(*target, "xxxx");
  auto copy = kx::dynamicCast<kx::IRangeCopy>(target);
  ASSERT_TRUE(copy);
  target->seek(2);
  ASSERT_TRUE(copy->copyFrom(*source, 10, 6));
  EXPECT_EQ(target->getPosition(), 8);
  EXPECT_EQ(target->getLength(), 8);
  target->seek(0);
  EXPECT_EQ(read(*target, 8), "xxabcdef");

  EXPECT_FALSE(copy->copyFrom(*source, 12, 8)) << "the source ends first";
  EXPECT_EQ(target->getPosition(), 8);
  auto memory = kx::create<kx::CMemoryFileSystem>();
  auto other = openFile(*memory, kx::CURI(kx::String("file:///m")));
  write(*other, "0123");
  EXPECT_FALSE(copy->copyFrom(*other, 0, 4)) << "a stream of another kind";
  EXPECT_EQ(target->getPosition(), 8);
  auto reader = open(dir_.getFileURI("source"), kRead);
  EXPECT_THROW(kx::dynamicCast<kx::IRangeCopy>(reader)->copyFrom(*source, 0, 4), kx::CFileSystemError);
}

TEST_F(LocalFileSystemTest, RefusesURIsThatAreNotLocal) {
  const std::string path = dir_.getPath() + "/f";
  for (const std::string& text : {"http://example.com" + path, "file://otherhost" + path, std::string("f")}) {
    const kx::CURI uri{kx::String(text)};
    EXPECT_EQ(fsProblem([&] { open(uri); }), kx::FSPROB_NOT_SUPPORTED) << text;
    EXPECT_EQ(fsProblem([&] { fs_->fileExists(uri); }), kx::FSPROB_NOT_SUPPORTED) << text;
    EXPECT_EQ(fsProblem([&] { fs_->deleteFile(uri, true); }), kx::FSPROB_NOT_SUPPORTED) << text;
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  open(kx::CURI(kx::String("file://LocalHost" + path)))->write("x", 1, nullptr);
  EXPECT_EQ(std::filesystem::file_size(path), 1u);
}

TEST_F(LocalFileSystemTest, SystemErrorsNameProblemOperationReasonAndURI) {
  std::filesystem::create_directory(dir_.getPath() + "/sub");
  const kx::CURI missing = dir_.getFileURI("missing"), sub = dir_.getFileURI("sub");
  const struct {
    std::function<void()> fn;
    const kx::CURI& uri;
    std::string operation;
    int error, problem;
  } cases[] = {
      {[&] { open(missing, kRead); }, missing, "Opening", ENOENT, kx::FSPROB_NOT_FOUND},
      {[&] { fs_->deleteFile(missing, false); }, missing, "Deleting", ENOENT, kx::FSPROB_NOT_FOUND},
      // A directory opens read-only on POSIX systems, yet is no file.
      {[&] { open(sub, kRead); }, sub, "Opening", EISDIR, kx::FSPROB_OTHER},
      {[&] { fs_->deleteFile(sub, true); }, sub, "Deleting", EISDIR, kx::FSPROB_OTHER},
  };
  for (const auto& c : cases) {
    const kx::CFileSystemError e = test::caught(c.fn, kx::CFileSystemError(-1, kx::CError("")));
    const std::string uri = c.uri.toString(true).toUTF8();
    EXPECT_EQ(e.getProblem(), c.problem) << uri;
    EXPECT_EQ(e.getMessage(), c.operation + " the file failed (" + std::strerror(c.error) + "): " + uri);
    EXPECT_EQ(e.getProps().get("uri"), uri);
    EXPECT_EQ(e.getProps().get("systemErrorCode"), std::to_string(c.error));
  }
  EXPECT_FALSE(fs_->fileExists(sub));
}

TEST_F(LocalFileSystemTest, PermissionDenied) {
  if (::geteuid() == 0) GTEST_SKIP() << "root passes every permission check";
  const kx::CURI uri = dir_.getFileURI("secret");
  open(uri);
  ASSERT_EQ(::chmod(dir_.getPath().c_str(), 0500), 0);
  EXPECT_EQ(fsProblem([&] { open(dir_.getFileURI("new")); }), kx::FSPROB_ACCESS_DENIED);
  EXPECT_EQ(fsProblem([&] { fs_->deleteFile(uri, false); }), kx::FSPROB_ACCESS_DENIED);
  ::chmod(dir_.getPath().c_str(), 0700);
}

// Also: the stream learns a length that others changed when it needs it.
TEST_F(LocalFileSystemTest, NonASCIINamesAndOtherWriters) {
  const std::string name = "gr\xC3\xBCn \xE3\x83\x87\xE3\x82\xA3\xE3\x82\xB9\xE3\x82\xAF.vmdk";
  const std::string path = dir_.getPath() + "/" + name;
  kx::P<kx::IIOStream> stream = open(kx::CURI(dir_.getFileURI(name).toString()));  // parsed anew from escapes
  write(*stream, "abc");
  EXPECT_EQ(std::filesystem::directory_iterator(dir_.getPath())->path().filename().string(), name);

  std::ofstream(path, std::ios::app) << "defg";
  stream->seek(7);  // past the length this stream knew
  stream->seek(3);
  EXPECT_EQ(read(*stream, 4), "defg");
  std::filesystem::resize_file(path, 2);
  stream->seek(0);
  char more[5];
  EXPECT_EQ(test::ioErrorCode([&] { stream->read(more, 5); }), kx::IOERR_READ_PAST_END);
  EXPECT_EQ(stream->getLength(), 2);
}

// The memory file system keys files by normalized URI; tests lean on its
// helpers and on the wrappers' counts and faults, often to show that
// something did not happen, so those must not go missing.
TEST(MemoryFileSystemTest, NamesHelpersAndWrappers) {
  auto memory = kx::create<kx::CMemoryFileSystem>();
  const auto uri = [](const char* text) { return kx::CURI(kx::String(text)); };
  const auto contentOf = [&](const char* text) {
    const kx::TBuffer<unsigned char> data = memory->getFileData(uri(text));
    return std::string(reinterpret_cast<const char*>(data.getData()), data.getUsed());
  };
  const auto missing = [&] { openFile(*memory, uri("file:///dir/missing%20file"), kRead); };
  EXPECT_EQ(test::caught(missing, kx::CError("")).getMessage(), "File not found: file:///dir/missing file");
  for (const char* text : {"", "file:///dir/"}) {
    EXPECT_EQ(fsProblem([&] { openFile(*memory, uri(text)); }), kx::FSPROB_BAD_NAME) << text;
  }
  openFile(*memory, uri("file:///dir/a.vmdk"))->write("x", 1, nullptr);
  for (const char* alias : {"FILE:///dir/a.vmdk", "file:///dir/sub/../a.vmdk", "file:///dir/%61.vmdk"}) {
    EXPECT_EQ(openFile(*memory, uri(alias), kRead)->getLength(), 1) << alias;
  }
  EXPECT_FALSE(memory->fileExists(uri("file:///dir/A.vmdk")));

  EXPECT_THROW(kx::CFileSystemWrapper(nullptr), kx::CError);
  auto counting = kx::create<test::CCountingFileSystem>(memory);
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(counting);
  kx::P<kx::IIOStream> a = openFile(*faulty, uri("mem:a"));
  kx::P<kx::IIOStream> b = openFile(*faulty, uri("mem:b"));
  faulty->failNth(FileOp::Write, 2);
  write(*a, "abc");
  const auto e = test::caught([&] { write(*b, "xx"); }, kx::CFileSystemError(-1, kx::CError("")));
  EXPECT_EQ(e.getProblem(), kx::FSPROB_IO);
  EXPECT_EQ(e.getProps().get("uri"), "mem:b");
  write(*b, "de");
  a->seek(0);
  char buffer[4];
  EXPECT_EQ(a->readLax(buffer, 4), 3);
  a->read(buffer, 0);
  a->flush();
  a->createWriteBarrier(nullptr);
  b->setLength(1);
  EXPECT_EQ(contentOf("mem:b"), "d");  // the failed write never arrived
  memory->setFileData(uri("mem:b"), "bee", 3);
  EXPECT_EQ(b->getPosition(), 2);
  EXPECT_EQ(b->getLength(), 3);
  EXPECT_EQ(memory->listFiles(),
            (std::vector<kx::CURI>{uri("file:///dir/a.vmdk"), uri("mem:a"), uri("mem:b")}));
  EXPECT_TRUE(faulty->fileExists(uri("mem:b")));
  faulty->deleteFile(uri("mem:b"), false);
  EXPECT_FALSE(faulty->fileExists(uri("mem:b")));
  EXPECT_EQ(fsProblem([&] { memory->getFileData(uri("mem:b")); }), kx::FSPROB_NOT_FOUND);

  EXPECT_EQ(faulty->getFaultCount(), 1);
  EXPECT_EQ(faulty->getCallCount(FileOp::Write), 3);
  const std::pair<FileOp, int64_t> expected[] = {
      {FileOp::Open, 2},  {FileOp::Write, 2},     {FileOp::Seek, 1}, {FileOp::Read, 2},
      {FileOp::Flush, 2}, {FileOp::SetLength, 1}, {FileOp::Lock, 0}, {FileOp::Delete, 1}};
  for (const auto& [op, count] : expected)
    EXPECT_EQ(counting->getCount(op), count) << test::getFileOpName(op);
  EXPECT_EQ(counting->getBytes(FileOp::Write), 5);
  EXPECT_EQ(counting->getBytes(FileOp::Read), 4);
}

}  // namespace
