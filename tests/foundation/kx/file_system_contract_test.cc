// The contract of file systems and their streams, checked the same way on
// every implementation and on the test wrappers stacked on them.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kx/error.h"
#include "kx/file_identity.h"
#include "kx/local_file_system.h"
#include "kx/memory_file_system.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/temp_dir.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Env {
  std::unique_ptr<test::CTempDir> dir;  // for the local file system
  kx::P<kx::IFileSystem> fs;
  kx::CURI base;
};

struct Kind {
  const char* name;
  Env (*make)();
};

// Names the case in failure output instead of dumping its bytes.
void PrintTo(const Kind& kind, std::ostream* os) { *os << kind.name; }

Env makeMemory() {
  return Env{nullptr, kx::create<kx::CMemoryFileSystem>(), kx::CURI(kx::String("file:///mem/"))};
}

Env makeLocal() {
  Env env{std::make_unique<test::CTempDir>(), kx::create<kx::CLocalFileSystem>(), kx::CURI()};
  env.base = env.dir->getURI();
  return env;
}

Env makeCountingOverMemory() {
  Env env = makeMemory();
  env.fs = kx::create<test::CCountingFileSystem>(env.fs);
  return env;
}

Env makeFaultInjectionOverLocal() {
  Env env = makeLocal();
  env.fs = kx::create<test::CFaultInjectionFileSystem>(env.fs);
  return env;
}

const Kind kKinds[] = {
    {"Memory", makeMemory},
    {"Local", makeLocal},
    {"CountingOverMemory", makeCountingOverMemory},
    {"FaultInjectionOverLocal", makeFaultInjectionOverLocal},
};

template <class Fn>
void expectIOError(Fn fn, int code) {
  try {
    fn();
    ADD_FAILURE() << "no error";
  } catch (const kx::CIOError& e) {
    EXPECT_EQ(e.getCode(), code) << e.what();
  }
}

template <class Fn>
kx::CFileSystemError expectFileSystemError(Fn fn, int problem) {
  try {
    fn();
  } catch (const kx::CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), problem) << e.what();
    return e;
  }
  ADD_FAILURE() << "no error";
  return kx::CFileSystemError(kx::FSPROB_OTHER, kx::CError("none"));
}

class FileSystemContractTest : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override { env_ = GetParam().make(); }

  kx::CURI uri(const char* name) const { return env_.base << kx::String(name); }
  kx::P<kx::IIOStream> open(const char* name,
                            kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
    int flags = 0;
    return env_.fs->openFile(uri(name), access, flags);
  }
  static void write(kx::IIOStream& stream, const std::string& text) {
    stream.write(text.data(), static_cast<int>(text.size()), nullptr);
  }
  static std::string read(kx::IIOStream& stream, int size) {
    std::string text(static_cast<size_t>(size), '\0');
    stream.read(text.data(), size);
    return text;
  }

  Env env_;
};

TEST_P(FileSystemContractTest, MissingFileOpensOnlyForWriting) {
  const kx::CFileSystemError error =
      expectFileSystemError([&] { open("missing", kx::IIOStream::ACCESS_READ); }, kx::FSPROB_NOT_FOUND);
  EXPECT_EQ(error.getProps().get("uri"), uri("missing").toString(true));
  EXPECT_FALSE(env_.fs->fileExists(uri("missing")));

  kx::P<kx::IIOStream> stream = open("missing");
  EXPECT_TRUE(env_.fs->fileExists(uri("missing")));
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
    stream->seek(0);
    EXPECT_EQ(read(*stream, 12), "hello WORLD!");
    EXPECT_EQ(stream->getPosition(), 12);
    EXPECT_TRUE(stream->isEndOfStream());
  }
  kx::P<kx::IIOStream> again = open("f", kx::IIOStream::ACCESS_READ);
  EXPECT_EQ(again->getLength(), 12);
  EXPECT_EQ(read(*again, 12), "hello WORLD!");
}

TEST_P(FileSystemContractTest, ReadPastTheEndFailsAndKeepsThePosition) {
  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "0123456789");
  stream->seek(6);
  char buffer[8] = {};
  expectIOError([&] { stream->read(buffer, 5); }, kx::IOERR_READ_PAST_END);
  EXPECT_EQ(stream->getPosition(), 6);
  EXPECT_EQ(stream->readLax(buffer, 8), 4);
  EXPECT_EQ(std::string(buffer, 4), "6789");
  EXPECT_EQ(stream->getPosition(), 10);
  EXPECT_EQ(stream->readLax(buffer, 8), 0);
  EXPECT_EQ(stream->readAvailable(buffer, 8), 0);
  stream->read(buffer, 0);
  EXPECT_TRUE(stream->waitReadable(0));
}

TEST_P(FileSystemContractTest, SeekStaysWithinTheLength) {
  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "abc");
  for (int64_t position : {int64_t{0}, int64_t{2}, int64_t{3}}) {
    stream->seek(position);
    EXPECT_EQ(stream->getPosition(), position);
  }
  for (int64_t position : {int64_t{-1}, int64_t{4}, int64_t{1} << 40}) {
    expectIOError([&] { stream->seek(position); }, kx::IOERR_BAD_SEEK_POSITION);
    EXPECT_EQ(stream->getPosition(), 3);
  }
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

TEST_P(FileSystemContractTest, KeepBufferWriteAndBarrier) {
  kx::P<kx::IIOStream> stream = open("f");
  auto buffer = kx::create<kx::TBuffer<unsigned char>>(6);
  std::memcpy(buffer->getData(), "xyzuvw", 6);
  stream->writeKeepBuffer(kx::TConstBufferSlice<unsigned char>(buffer, 1, 4), nullptr);
  kx::P<kx::IWriteBarrier> barrier = stream->createWriteBarrier(nullptr);
  ASSERT_TRUE(barrier);
  write(*stream, "!");
  stream->flush();
  stream->seek(0);
  EXPECT_EQ(read(*stream, 5), "yzuv!");
}

TEST_P(FileSystemContractTest, ClosedStreamRefusesEverythingButGetURIAndClose) {
  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "abc");
  stream->close();
  char buffer[4];
  const std::vector<std::pair<const char*, std::function<void()>>> operations = {
      {"getLength", [&] { stream->getLength(); }},
      {"getPosition", [&] { stream->getPosition(); }},
      {"seek", [&] { stream->seek(0); }},
      {"read", [&] { stream->read(buffer, 1); }},
      {"readLax", [&] { stream->readLax(buffer, 1); }},
      {"readAvailable", [&] { stream->readAvailable(buffer, 1); }},
      {"waitReadable", [&] { stream->waitReadable(0); }},
      {"isEndOfStream", [&] { stream->isEndOfStream(); }},
      {"isEndOfStream_NonBlocking", [&] { stream->isEndOfStream_NonBlocking(); }},
      {"write", [&] { stream->write("x", 1, nullptr); }},
      {"createWriteBarrier", [&] { stream->createWriteBarrier(nullptr); }},
      {"flush", [&] { stream->flush(); }},
      {"setLength", [&] { stream->setLength(1); }},
      {"lockRange", [&] { stream->lockRange(0, 1, kx::IStreamBase::LOCK_SHARED); }},
  };
  for (const auto& operation : operations) {
    SCOPED_TRACE(operation.first);
    try {
      operation.second();
      ADD_FAILURE() << "no error";
    } catch (const kx::CIOError& e) {
      EXPECT_EQ(e.getCode(), kx::IOERR_STREAM_CLOSED);
      EXPECT_EQ(e.getMessage(), "");
      EXPECT_TRUE(e.getProps().isEmpty());
    }
  }
  EXPECT_EQ(stream->getURI(), uri("f"));
  stream->close();
  EXPECT_EQ(open("f", kx::IIOStream::ACCESS_READ)->getLength(), 3);
}

TEST_P(FileSystemContractTest, ReadOnlyStreamRefusesChanges) {
  open("f");
  kx::P<kx::IIOStream> stream = open("f", kx::IIOStream::ACCESS_READ);
  expectFileSystemError([&] { write(*stream, "x"); }, kx::FSPROB_ACCESS_DENIED);
  expectFileSystemError([&] { stream->setLength(4); }, kx::FSPROB_ACCESS_DENIED);
  expectFileSystemError([&] { stream->lockRange(0, 1, kx::IStreamBase::LOCK_EXCLUSIVE); },
                        kx::FSPROB_ACCESS_DENIED);
  EXPECT_EQ(stream->getLength(), 0);
  stream->lockRange(0, 1, kx::IStreamBase::LOCK_SHARED);
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
  expectFileSystemError([&] { env_.fs->deleteFile(uri("f"), false); }, kx::FSPROB_NOT_FOUND);
  env_.fs->deleteFile(uri("f"), true);

  kx::P<kx::IIOStream> stream = open("f");
  write(*stream, "kept");
  env_.fs->deleteFile(uri("f"), false);
  EXPECT_FALSE(env_.fs->fileExists(uri("f")));
  // An open stream keeps the deleted file.
  stream->seek(0);
  EXPECT_EQ(read(*stream, 4), "kept");
  expectFileSystemError([&] { open("f", kx::IIOStream::ACCESS_READ); }, kx::FSPROB_NOT_FOUND);
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
  env_.fs->deleteFile(uri("f"), false);
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

TEST_P(FileSystemContractTest, LocksConflictBetweenOpensByRangeAndType) {
  using LT = kx::IStreamBase::LockType;
  const LT S = kx::IStreamBase::LOCK_SHARED;
  const LT X = kx::IStreamBase::LOCK_EXCLUSIVE;
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
      const kx::CFileSystemError error =
          expectFileSystemError([&] { b->lockRange(c.offsetB, c.lengthB, c.typeB); }, kx::FSPROB_LOCKED);
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
  kx::P<kx::IStreamLock> lock = a->lockRange(0, 1, kx::IStreamBase::LOCK_EXCLUSIVE);
  a->close();
  a = nullptr;
  expectFileSystemError([&] { b->lockRange(0, 1, kx::IStreamBase::LOCK_SHARED); }, kx::FSPROB_LOCKED);
  lock = nullptr;
  kx::P<kx::IStreamLock> taken = b->lockRange(0, 1, kx::IStreamBase::LOCK_EXCLUSIVE);
  EXPECT_TRUE(taken);
}

INSTANTIATE_TEST_SUITE_P(AllFileSystems, FileSystemContractTest, testing::ValuesIn(kKinds),
                         [](const testing::TestParamInfo<Kind>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
