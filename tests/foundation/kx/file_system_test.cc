// File systems and their streams: the contract that every implementation and
// the test wrappers stacked on them keep, then what each one adds.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "kx/error.h"
#include "kx/file_identity.h"
#include "kx/file_system_wrapper.h"
#include "kx/local_file_system.h"
#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/temp_dir.h"

namespace {

using test::FileOp;
constexpr auto kRead = kx::IIOStream::ACCESS_READ;
constexpr auto kShared = kx::IStreamBase::LOCK_SHARED;
constexpr auto kExclusive = kx::IStreamBase::LOCK_EXCLUSIVE;

kx::P<kx::IIOStream> openFile(kx::IFileSystem& fs, const kx::CURI& uri,
                              kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
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
std::string toText(const kx::TBuffer<unsigned char>& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.getData()), buffer.getUsed());
}

// The error that `fn` throws; without one, an error whose code matches nothing.
template <class Fn>
kx::CFileSystemError fsError(Fn fn) {
  return test::caught(fn, kx::CFileSystemError(-1, kx::CError("no error")));
}
template <class Fn>
kx::CIOError ioError(Fn fn) {
  return test::caught(fn, kx::CIOError(-1, "no error"));
}

struct Kind {
  const char* name;
  bool local;
  kx::P<kx::IFileSystem> (*wrap)(const kx::P<kx::IFileSystem>&);
};

// Names the case in failure output instead of dumping its bytes.
void PrintTo(const Kind& kind, std::ostream* os) { *os << kind.name; }

template <class Wrapper>
kx::P<kx::IFileSystem> wrap(const kx::P<kx::IFileSystem>& fs) {
  return kx::create<Wrapper>(fs);
}
kx::P<kx::IFileSystem> bare(const kx::P<kx::IFileSystem>& fs) { return fs; }

const Kind kKinds[] = {
    {"Memory", false, bare},
    {"Local", true, bare},
    {"WrapperOverMemory", false, wrap<kx::CFileSystemWrapper>},
    {"CountingOverMemory", false, wrap<test::CCountingFileSystem>},
    {"FaultInjectionOverLocal", true, wrap<test::CFaultInjectionFileSystem>},
};

class FileSystemContractTest : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    if (GetParam().local) {
      fs_ = GetParam().wrap(kx::create<kx::CLocalFileSystem>());
      base_ = dir_.getURI();
    } else {
      fs_ = GetParam().wrap(kx::create<kx::CMemoryFileSystem>());
      base_ = kx::CURI(kx::String("file:///mem/"));
    }
  }

  kx::CURI uri(const char* name) const { return base_ << kx::String(name); }
  kx::P<kx::IIOStream> open(const char* name,
                            kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
    return openFile(*fs_, uri(name), access);
  }

  test::CTempDir dir_;  // for the local file system
  kx::P<kx::IFileSystem> fs_;
  kx::CURI base_;
};

TEST_P(FileSystemContractTest, MissingFileOpensOnlyForWriting) {
  const kx::CFileSystemError error = fsError([&] { open("missing", kRead); });
  EXPECT_EQ(error.getProblem(), kx::FSPROB_NOT_FOUND);
  EXPECT_EQ(error.getProps().get("uri"), uri("missing").toString(true));
  EXPECT_FALSE(fs_->fileExists(uri("missing")));

  kx::P<kx::IIOStream> stream = open("missing");
  EXPECT_TRUE(fs_->fileExists(uri("missing")));
  EXPECT_EQ(stream->getLength(), 0);
  EXPECT_EQ(stream->getPosition(), 0);
  EXPECT_TRUE(stream->isEndOfStream());
  EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 1);
  EXPECT_EQ(stream->getURI(), uri("missing"));
}

TEST_P(FileSystemContractTest, WritesAreReadBackAtOnceAndAfterReopening) {
  {
    kx::P<kx::IIOStream> stream = open("f");
    write(*stream, "hello world");
    EXPECT_EQ(stream->getPosition(), 11);
    EXPECT_EQ(stream->getLength(), 11);
    stream->seek(6);
    write(*stream, "WORLD!");  // overwrites 5 bytes and extends by 1
    EXPECT_EQ(stream->getLength(), 12);
    auto buffer = kx::create<kx::TBuffer<unsigned char>>(6);
    std::memcpy(buffer->getData(), "xyzuvw", 6);
    stream->writeKeepBuffer(kx::TConstBufferSlice<unsigned char>(buffer, 1, 4), nullptr);
    ASSERT_TRUE(stream->createWriteBarrier(nullptr));
    stream->flush();
    stream->seek(0);
    EXPECT_EQ(read(*stream, 16), "hello WORLD!yzuv");
    EXPECT_EQ(stream->getPosition(), 16);
    EXPECT_TRUE(stream->isEndOfStream());
  }
  kx::P<kx::IIOStream> again = open("f", kRead);
  EXPECT_EQ(again->getLength(), 16);
  EXPECT_EQ(read(*again, 16), "hello WORLD!yzuv");
}

TEST_P(FileSystemContractTest, ReadsAndSeeksPastTheEndFailAndKeepThePosition) {
  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "0123456789");
  for (int64_t position : {int64_t{-1}, int64_t{11}, int64_t{1} << 40}) {
    EXPECT_EQ(ioError([&] { stream->seek(position); }).getCode(), kx::IOERR_BAD_SEEK_POSITION);
    EXPECT_EQ(stream->getPosition(), 10);
  }
  stream->seek(6);
  char buffer[8] = {};
  EXPECT_EQ(ioError([&] { stream->read(buffer, 5); }).getCode(), kx::IOERR_READ_PAST_END);
  EXPECT_EQ(stream->getPosition(), 6);
  EXPECT_EQ(stream->readLax(buffer, 8), 4);
  EXPECT_EQ(std::string(buffer, 4), "6789");
  EXPECT_EQ(stream->getPosition(), 10);
  EXPECT_EQ(stream->readLax(buffer, 8), 0);
  EXPECT_EQ(stream->readAvailable(buffer, 8), 0);
  stream->read(buffer, 0);
  EXPECT_TRUE(stream->waitReadable(0));
}

TEST_P(FileSystemContractTest, SetLengthCutsAndGrowsWithZeros) {
  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "abcdefgh");
  stream->setLength(3);
  EXPECT_EQ(stream->getLength(), 3);
  stream->setLength(6);  // the bytes "def" that were cut must not come back
  stream->seek(0);
  EXPECT_EQ(read(*stream, 6), std::string("abc\0\0\0", 6));
  stream->setLength(0);
  EXPECT_EQ(stream->getLength(), 0);
  EXPECT_EQ(stream->getPosition(), 6);  // kept, past the end: reads see nothing
  char c;
  EXPECT_EQ(stream->readLax(&c, 1), 0);
}

TEST_P(FileSystemContractTest, ClosedStreamRefusesEverythingButGetURIAndClose) {
  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "abc");
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
    const kx::CIOError e = ioError(operation);
    EXPECT_EQ(e.getCode(), kx::IOERR_STREAM_CLOSED) << "operation " << i++;
    EXPECT_EQ(e.getMessage(), "");
    EXPECT_TRUE(e.getProps().isEmpty());
  }
  EXPECT_EQ(stream->getURI(), uri("f"));
  stream->close();
  EXPECT_EQ(open("f", kRead)->getLength(), 3);
}

TEST_P(FileSystemContractTest, ReadOnlyStreamRefusesChanges) {
  open("f");
  kx::P<kx::IIOStream> stream = open("f", kRead);
  EXPECT_EQ(fsError([&] { write(*stream, "x"); }).getProblem(), kx::FSPROB_ACCESS_DENIED);
  EXPECT_EQ(fsError([&] { stream->setLength(4); }).getProblem(), kx::FSPROB_ACCESS_DENIED);
  EXPECT_EQ(fsError([&] { stream->lockRange(0, 1, kExclusive); }).getProblem(), kx::FSPROB_ACCESS_DENIED);
  EXPECT_EQ(stream->getLength(), 0);
  stream->lockRange(0, 1, kShared);
}

TEST_P(FileSystemContractTest, TwoOpensSeeEachOthersWrites) {
  kx::P<kx::IIOStream> first = open("f");
  kx::P<kx::IIOStream> second = open("f");
  write(*first, "abcd");
  EXPECT_EQ(read(*second, 4), "abcd");  // the second learns the new length by reading
  second->seek(2);
  write(*second, "XYZ");
  first->seek(0);
  EXPECT_EQ(read(*first, 5), "abXYZ");
  EXPECT_EQ(first->getLength(), 5);
}

TEST_P(FileSystemContractTest, DeleteFile) {
  EXPECT_EQ(fsError([&] { fs_->deleteFile(uri("f"), false); }).getProblem(), kx::FSPROB_NOT_FOUND);
  fs_->deleteFile(uri("f"), true);

  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "kept");
  fs_->deleteFile(uri("f"), false);
  EXPECT_FALSE(fs_->fileExists(uri("f")));
  // An open stream keeps the deleted file.
  stream->seek(0);
  EXPECT_EQ(read(*stream, 4), "kept");
  EXPECT_EQ(fsError([&] { open("f", kRead); }).getProblem(), kx::FSPROB_NOT_FOUND);
  EXPECT_EQ(open("f")->getLength(), 0);
}

TEST_P(FileSystemContractTest, StreamTellsWhetherANameLeadsToItsFile) {
  kx::P<kx::IIOStream> stream = open("f");
  open("other");
  kx::P<kx::IFileIdentity> identity = kx::dynamicCast<kx::IFileIdentity>(stream);
  ASSERT_TRUE(identity);
  EXPECT_EQ(identity->checkSameFile(uri("f")), 1);
  EXPECT_EQ(identity->checkSameFile(uri("other")), 0);
  EXPECT_EQ(identity->checkSameFile(uri("missing")), 0);
  fs_->deleteFile(uri("f"), false);
  EXPECT_EQ(identity->checkSameFile(uri("f")), 0);
  open("f");  // a new file of the same name
  EXPECT_EQ(identity->checkSameFile(uri("f")), 0);
}

struct LockCase {
  const char* name;
  int64_t offsetA, lengthA;
  kx::IStreamBase::LockType typeA;
  int64_t offsetB, lengthB;
  kx::IStreamBase::LockType typeB;
  bool conflict;
};

// On the local file system these are locks of one open each (OFD), which
// conflict even within one process.
TEST_P(FileSystemContractTest, LocksConflictBetweenOpensByRangeAndType) {
  const auto S = kShared;
  const auto X = kExclusive;
  const LockCase cases[] = {
      {"exclusive/exclusive", 0, 1, X, 0, 1, X, true}, {"shared/shared", 0, 1, S, 0, 1, S, false},
      {"shared/exclusive", 0, 1, S, 0, 1, X, true},    {"exclusive/shared", 0, 1, X, 0, 1, S, true},
      {"disjoint", 0, 10, X, 10, 5, X, false},         {"overlapping", 0, 10, X, 9, 5, X, true},
      {"to any end", 100, 0, X, 1 << 30, 1, S, true},
  };
  kx::P<kx::IIOStream> a = open("f");
  kx::P<kx::IIOStream> b = open("f");
  for (const LockCase& c : cases) {
    SCOPED_TRACE(c.name);
    kx::P<kx::IStreamLock> held = a->lockRange(c.offsetA, c.lengthA, c.typeA);
    if (c.conflict) {
      const kx::CFileSystemError error = fsError([&] { b->lockRange(c.offsetB, c.lengthB, c.typeB); });
      EXPECT_EQ(error.getProblem(), kx::FSPROB_LOCKED);
      EXPECT_EQ(error.getProps().get("uri"), uri("f").toString(true));
    } else {
      b->lockRange(c.offsetB, c.lengthB, c.typeB);
    }
    // Locks of one open never conflict with each other.
    a->lockRange(c.offsetB, c.lengthB, c.typeB);
  }
}

TEST_P(FileSystemContractTest, LockLivesUntilItsObjectGoes) {
  kx::P<kx::IIOStream> a = open("f");
  kx::P<kx::IIOStream> b = open("f");
  kx::P<kx::IStreamLock> lock = a->lockRange(0, 1, kExclusive);
  a->close();
  a = nullptr;
  EXPECT_EQ(fsError([&] { b->lockRange(0, 1, kShared); }).getProblem(), kx::FSPROB_LOCKED);
  lock = nullptr;
  EXPECT_TRUE(b->lockRange(0, 1, kExclusive));
}

INSTANTIATE_TEST_SUITE_P(AllFileSystems, FileSystemContractTest, testing::ValuesIn(kKinds),
                         [](const testing::TestParamInfo<Kind>& info) {
                           return std::string(info.param.name);
                         });

class LocalFileSystemTest : public testing::Test {
 protected:
  kx::P<kx::IIOStream> open(const kx::CURI& uri,
                            kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
    return openFile(*fs_, uri, access);
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
};

TEST_F(LocalFileSystemTest, RefusesURIsThatAreNotLocal) {
  const std::string path = dir_.getPath() + "/f";
  for (const std::string& text : {"http://example.com" + path, "file://otherhost" + path, std::string("f")}) {
    SCOPED_TRACE(text);
    const kx::CURI uri{kx::String(text)};
    EXPECT_EQ(fsError([&] { open(uri); }).getProblem(), kx::FSPROB_NOT_SUPPORTED);
    EXPECT_EQ(fsError([&] { fs_->fileExists(uri); }).getProblem(), kx::FSPROB_NOT_SUPPORTED);
    EXPECT_EQ(fsError([&] { fs_->deleteFile(uri, true); }).getProblem(), kx::FSPROB_NOT_SUPPORTED);
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  open(kx::CURI(kx::String("file://LocalHost" + path)))->write("x", 1, nullptr);
  EXPECT_EQ(std::filesystem::file_size(path), 1u);
}

TEST_F(LocalFileSystemTest, SystemErrorsNameProblemOperationReasonAndURI) {
  std::filesystem::create_directory(dir_.getPath() + "/sub");
  const kx::CURI missing = dir_.getFileURI("missing");
  const kx::CURI inMissingFolder = dir_.getFileURI("no-such-folder/f");
  const kx::CURI sub = dir_.getFileURI("sub");
  struct Case {
    std::function<void()> fn;
    const kx::CURI& uri;
    std::string operation;
    int error, problem;
  };
  const Case cases[] = {
      {[&] { open(missing, kRead); }, missing, "Opening", ENOENT, kx::FSPROB_NOT_FOUND},
      {[&] { open(inMissingFolder); }, inMissingFolder, "Opening", ENOENT, kx::FSPROB_NOT_FOUND},
      {[&] { fs_->deleteFile(missing, false); }, missing, "Deleting", ENOENT, kx::FSPROB_NOT_FOUND},
      // A directory opens read-only on POSIX systems, yet is no file.
      {[&] { open(sub, kRead); }, sub, "Opening", EISDIR, kx::FSPROB_OTHER},
      {[&] { open(sub); }, sub, "Opening", EISDIR, kx::FSPROB_OTHER},
      {[&] { fs_->deleteFile(sub, true); }, sub, "Deleting", EISDIR, kx::FSPROB_OTHER},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.operation + " " + c.uri.toString(true).toUTF8());
    const kx::CFileSystemError e = fsError(c.fn);
    EXPECT_EQ(e.getProblem(), c.problem);
    EXPECT_EQ(e.getMessage(), c.operation + " the file failed (" + std::strerror(c.error) +
                                  "): " + c.uri.toString(true).toUTF8());
    EXPECT_EQ(e.getProps().get("uri"), c.uri.toString(true));
    EXPECT_EQ(e.getProps().get("systemErrorCode"), std::to_string(c.error));
  }
  EXPECT_FALSE(fs_->fileExists(sub));
}

TEST_F(LocalFileSystemTest, PermissionDenied) {
  if (::geteuid() == 0) GTEST_SKIP() << "root passes every permission check";
  const kx::CURI uri = dir_.getFileURI("secret");
  open(uri);
  ASSERT_EQ(::chmod((dir_.getPath() + "/secret").c_str(), 0), 0);
  EXPECT_EQ(fsError([&] { open(uri, kRead); }).getProblem(), kx::FSPROB_ACCESS_DENIED);
  ASSERT_EQ(::chmod(dir_.getPath().c_str(), 0500), 0);
  EXPECT_EQ(fsError([&] { open(dir_.getFileURI("new")); }).getProblem(), kx::FSPROB_ACCESS_DENIED);
  EXPECT_EQ(fsError([&] { fs_->deleteFile(uri, false); }).getProblem(), kx::FSPROB_ACCESS_DENIED);
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
  EXPECT_EQ(names, std::vector<std::string>{name});
  // The escaped text parsed anew names the same file.
  EXPECT_EQ(open(kx::CURI(uri.toString()), kRead)->getLength(), 4);
}

TEST_F(LocalFileSystemTest, SeesChangesOfOtherWriters) {
  const std::string path = dir_.getPath() + "/f";
  kx::P<kx::IIOStream> stream = open(dir_.getFileURI("f"));
  write(*stream, "abc");
  std::ofstream(path, std::ios::app) << "defg";
  stream->seek(7);  // past the length this stream knew
  stream->seek(3);
  EXPECT_EQ(read(*stream, 4), "defg");

  std::filesystem::resize_file(path, 2);
  stream->seek(0);
  stream->getLength();  // still the old length: it is learned only when needed
  char more[5];
  EXPECT_EQ(ioError([&] { stream->read(more, 5); }).getCode(), kx::IOERR_READ_PAST_END);
  EXPECT_EQ(stream->getPosition(), 0);
  EXPECT_EQ(stream->getLength(), 2);
}

TEST_F(LocalFileSystemTest, DescriptorClosesWithTheLastOfStreamAndLock) {
  const auto countOpenDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = countOpenDescriptors();
  kx::P<kx::IIOStream> stream = open(dir_.getFileURI("f"));
  kx::P<kx::IStreamLock> lock = stream->lockRange(0, 1, kExclusive);
  EXPECT_EQ(countOpenDescriptors(), before + 1);
  stream->close();
  EXPECT_EQ(countOpenDescriptors(), before + 1);
  lock = nullptr;
  EXPECT_EQ(countOpenDescriptors(), before);
}

// The memory file system's own naming and test helpers, and the wrappers that
// tests stack on it.
class MemoryFileSystemTest : public testing::Test {
 protected:
  static kx::CURI uri(const char* text) { return kx::CURI(kx::String(text)); }
  kx::P<kx::IIOStream> open(const char* text,
                            kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
    return openFile(*memory_, uri(text), access);
  }
  std::string contentOf(const char* text) { return toText(memory_->getFileData(uri(text))); }

  kx::P<kx::CMemoryFileSystem> memory_ = kx::create<kx::CMemoryFileSystem>();
};
using FileSystemWrapperTest = MemoryFileSystemTest;

TEST_F(MemoryFileSystemTest, RefusedNamesSayWhy) {
  const kx::CFileSystemError missing = fsError([&] { open("file:///dir/missing%20file", kRead); });
  EXPECT_EQ(missing.getProblem(), kx::FSPROB_NOT_FOUND);
  EXPECT_EQ(missing.getMessage(), "File not found: file:///dir/missing file");
  EXPECT_EQ(missing.getProps().get("uri"), "file:///dir/missing file");
  for (const char* text : {"", "file:///dir/", "file:///"}) {
    EXPECT_EQ(fsError([&] { open(text); }).getProblem(), kx::FSPROB_BAD_NAME) << text;
  }
}

TEST_F(MemoryFileSystemTest, SpellingsOfOneNormalizedURIReachOneFile) {
  open("file:///dir/a.vmdk")->write("x", 1, nullptr);
  for (const char* alias : {"FILE:///dir/a.vmdk", "file:///dir/sub/../a.vmdk", "file:///dir/%61.vmdk"}) {
    SCOPED_TRACE(alias);
    EXPECT_TRUE(memory_->fileExists(uri(alias)));
    EXPECT_EQ(open(alias, kRead)->getLength(), 1);
  }
  EXPECT_FALSE(memory_->fileExists(uri("file:///dir/A.vmdk")));
}

TEST_F(MemoryFileSystemTest, HelpersSetGetAndListFiles) {
  memory_->setFileData(uri("mem:b"), "bee", 3);
  memory_->setFileData(uri("mem:a"), "a", 1);
  kx::P<kx::IIOStream> stream = open("mem:c");
  EXPECT_EQ(memory_->listFiles(), (std::vector<kx::CURI>{uri("mem:a"), uri("mem:b"), uri("mem:c")}));
  EXPECT_EQ(contentOf("mem:b"), "bee");
  EXPECT_EQ(contentOf("mem:c"), "");
  EXPECT_EQ(fsError([&] { memory_->getFileData(uri("mem:missing")); }).getProblem(), kx::FSPROB_NOT_FOUND);

  // Replacing the bytes under an open stream keeps its position.
  write(*stream, "long content");
  memory_->setFileData(uri("mem:c"), "short", 5);
  EXPECT_EQ(stream->getLength(), 5);
  EXPECT_EQ(stream->getPosition(), 12);
  write(*stream, "!");  // past the end: the gap reads as zeros
  EXPECT_EQ(contentOf("mem:c"), std::string("short\0\0\0\0\0\0\0!", 13));
}

// Other tests lean on these counts and faults, often to show that something
// did not happen, so they must not go missing.
TEST_F(FileSystemWrapperTest, CountsAndFailsOperationsOverAllStreams) {
  EXPECT_THROW(kx::CFileSystemWrapper(nullptr), kx::CError);
  auto counting = kx::create<test::CCountingFileSystem>(memory_);
  auto faulty = kx::create<test::CFaultInjectionFileSystem>(counting);
  kx::P<kx::IIOStream> a = openFile(*faulty, uri("mem:a"));
  kx::P<kx::IIOStream> b = openFile(*faulty, uri("mem:b"));
  faulty->failNth(FileOp::Write, 2);
  write(*a, "abc");
  const kx::CFileSystemError e = fsError([&] { write(*b, "xx"); });
  EXPECT_EQ(e.getProblem(), kx::FSPROB_IO);
  EXPECT_EQ(e.getProps().get("uri"), "mem:b");
  write(*b, "de");
  a->seek(0);
  char buffer[3];
  a->read(buffer, 2);
  a->readLax(buffer, 3);
  a->flush();
  a->createWriteBarrier(nullptr);
  b->setLength(1);
  EXPECT_EQ(contentOf("mem:b"), "d");  // the failed write never arrived
  faulty->deleteFile(uri("mem:b"), false);

  EXPECT_EQ(faulty->getFaultCount(), 1);
  EXPECT_EQ(faulty->getCallCount(FileOp::Write), 3);
  const std::pair<FileOp, int64_t> expected[] = {
      {FileOp::Open, 2},  {FileOp::Write, 2},     {FileOp::Seek, 1}, {FileOp::Read, 2},
      {FileOp::Flush, 2}, {FileOp::SetLength, 1}, {FileOp::Lock, 0}, {FileOp::Delete, 1}};
  for (const auto& [op, count] : expected)
    EXPECT_EQ(counting->getCount(op), count) << test::getFileOpName(op);
  EXPECT_EQ(counting->getBytes(FileOp::Write), 5);
  EXPECT_EQ(counting->getBytes(FileOp::Read), 5);
}

}  // namespace
