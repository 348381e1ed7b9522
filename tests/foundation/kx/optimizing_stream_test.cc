#include "kx/optimizing_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <utility>
#include <vector>

#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/fault_injection_file_system.h"
#include "tests/support/caught_error.h"
#include "tests/support/log_capture.h"
#include "tests/support/stream_wrapper.h"

namespace {

using Bytes = std::vector<unsigned char>;
using test::FileOp;

// Remembers where the last written bytes came from, to tell a copy from the
// caller's own buffer. Kept slices are kept, as a target may: their bytes are
// written again at flush.
class CRecordingStream final : public test::CStreamWrapper {
 public:
  using test::CStreamWrapper::CStreamWrapper;
  void write(const void* data, int size, kx::IWriteBarrier* barrier) override {
    lastWriteData = data;
    CStreamWrapper::write(data, size, barrier);
  }
  void writeKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data,
                       kx::IWriteBarrier* barrier) override {
    lastWriteData = data.getData();
    kept.emplace_back(getPosition(), data);
    CStreamWrapper::writeKeepBuffer(data, barrier);
  }
  void flush() override {
    const int64_t position = getPosition();
    for (const auto& [at, slice] : kept) {
      seek(at);
      CStreamWrapper::write(slice.getData(), static_cast<int>(slice.getLength()), nullptr);
    }
    kept.clear();
    seek(position);
    CStreamWrapper::flush();
  }
  const void* lastWriteData = nullptr;
  std::vector<std::pair<int64_t, kx::TConstBufferSlice<unsigned char>>> kept;
};

Bytes pattern(size_t size, unsigned seed) {
  Bytes v(size);
  for (size_t i = 0; i < size; ++i) v[i] = static_cast<unsigned char>(i * 131 + seed * 7 + (i >> 8));
  return v;
}

using test::ioErrorCode;

// Streams run over a memory file through a counting and a failing layer.
class OptimizingStreamTest : public ::testing::Test {
 protected:
  kx::P<kx::IIOStream> openTarget(kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
    int flags = 0;
    return faults->openFile(uri, access, flags);
  }
  kx::P<kx::COptimizingIOStream> open(int bufferSizeBytes) {
    return kx::create<kx::COptimizingIOStream>(openTarget(), bufferSizeBytes);
  }
  Bytes fileBytes() {
    const auto data = memory->getFileData(uri);
    return Bytes(data.getData(), data.getData() + data.getUsed());
  }
  void setFileBytes(const Bytes& bytes) { memory->setFileData(uri, bytes.data(), bytes.size()); }
  int64_t count(FileOp op) const { return counting->getCount(op); }

  const kx::CURI uri{kx::String("mem:///disk.vmdk")};
  kx::P<kx::CMemoryFileSystem> memory = kx::create<kx::CMemoryFileSystem>();
  kx::P<test::CCountingFileSystem> counting = kx::create<test::CCountingFileSystem>(memory);
  kx::P<test::CFaultInjectionFileSystem> faults = kx::create<test::CFaultInjectionFileSystem>(counting);
};

// The parameter is the buffer size in bytes, which also seeds the run.
class OptimizingStreamDifferentialTest : public OptimizingStreamTest,
                                         public ::testing::WithParamInterface<int> {};

// Drives the stream and a plain vector with the same random operations and
// compares them after every step; the file must equal the vector after every
// flush and after the stream ends unflushed.
TEST_P(OptimizingStreamDifferentialTest, AgreesWithPlainModel) {
  std::mt19937 rng(static_cast<unsigned>(GetParam()));
  auto uniform = [&rng](int64_t lo, int64_t hi) {
    return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
  };
  auto pickSize = [&]() -> int {  // mostly fields and sectors, sometimes grains and more
    const int64_t kind = uniform(0, 9);
    return static_cast<int>(kind < 6   ? uniform(1, 64)
                            : kind < 9 ? uniform(65, 8192)
                                       : uniform(8193, 200 * 1024));
  };
  Bytes model = pattern(static_cast<size_t>(uniform(0, 100000)), static_cast<unsigned>(GetParam()));
  setFileBytes(model);
  int64_t position = 0;
  auto stream = open(GetParam());
  for (int step = 0; step < 3000; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    const int64_t length = static_cast<int64_t>(model.size());
    const int64_t op = uniform(0, 10);
    if (op <= 4) {  // write: at a random place, at the end, or on from the last operation
      if (op <= 2) stream->seek(position = op == 0 ? length : uniform(0, length));
      const int size = op <= 2 ? pickSize() : static_cast<int>(uniform(1, 600));
      const Bytes data = pattern(size, static_cast<unsigned>(step));
      if (op == 1) {
        auto buffer = kx::create<kx::TBuffer<unsigned char>>(size + 10);
        std::memcpy(buffer->getData() + 5, data.data(), size);
        stream->writeKeepBuffer(kx::TConstBufferSlice<unsigned char>(buffer, 5, size), nullptr);
      } else {
        stream->write(data.data(), size, nullptr);
      }
      model.resize(std::max<int64_t>(length, position + size));
      std::copy(data.begin(), data.end(), model.begin() + position);
      position += size;
    } else if (op <= 7) {  // read or readLax, sometimes past the end
      if (op == 5) stream->seek(position = uniform(0, length));
      const int size = pickSize();
      Bytes got(size, 0xEE);
      const int expected = static_cast<int>(std::min<int64_t>(size, length - position));
      if (op == 7 && expected < size) {
        ASSERT_EQ(ioErrorCode([&] { stream->read(got.data(), size); }), kx::IOERR_READ_PAST_END);
      } else {
        ASSERT_EQ(op == 7 ? (stream->read(got.data(), size), size) : stream->readLax(got.data(), size),
                  expected);
        ASSERT_TRUE(std::equal(got.begin(), got.begin() + expected, model.begin() + position));
        position += expected;
      }
    } else if (op == 8) {
      ASSERT_EQ(ioErrorCode([&] { stream->seek(length + uniform(1, 5)); }), kx::IOERR_BAD_SEEK_POSITION);
    } else if (op == 9 && uniform(0, 3) == 0) {
      stream->flush();
      ASSERT_EQ(fileBytes(), model);
    } else if (op == 10 && uniform(0, 15) == 0) {
      model.resize(uniform(0, length));
      stream->setLength(static_cast<int64_t>(model.size()));
      position = std::min<int64_t>(position, model.size());
    }
    ASSERT_EQ(stream->getPosition(), position);
    ASSERT_EQ(stream->getLength(), static_cast<int64_t>(model.size()));
    ASSERT_EQ(stream->isEndOfStream(), position == static_cast<int64_t>(model.size()));
  }
  stream = nullptr;
  EXPECT_EQ(fileBytes(), model);
}

INSTANTIATE_TEST_SUITE_P(BufferSizes, OptimizingStreamDifferentialTest,
                         ::testing::Values(100, 4096, 64 * 1024, 1 << 20));

TEST_F(OptimizingStreamTest, SmallWritesCostOneTargetWritePerBuffer) {
  constexpr int kBufferSizeBytes = 1024;
  auto stream = open(kBufferSizeBytes);
  for (uint32_t i = 0; i < 1000; ++i) stream->write(&i, 4, nullptr);
  stream->flush();
  EXPECT_LE(count(FileOp::Write), (4000 + kBufferSizeBytes - 1) / kBufferSizeBytes + 1);
  EXPECT_EQ(count(FileOp::Seek), 0);
  EXPECT_EQ(count(FileOp::Flush), 1);
  EXPECT_EQ(fileBytes().size(), 4000u);
}

TEST_F(OptimizingStreamTest, LargeAndKeptWritesPassWithoutCopy) {
  auto target = kx::create<CRecordingStream>(openTarget());
  auto stream = kx::create<kx::COptimizingIOStream>(target, 256 * 1024);
  auto grain = kx::create<kx::TBuffer<unsigned char>>(64 * 1024);
  stream->write("head", 4, nullptr);
  stream->writeKeepBuffer(kx::TConstBufferSlice<unsigned char>(grain, 0, 64 * 1024), nullptr);
  EXPECT_EQ(count(FileOp::Write), 2);  // the pending head, then the slice itself
  EXPECT_EQ(target->lastWriteData, grain->getData());
  const Bytes big = pattern(256 * 1024, 9);
  stream->write(big.data(), static_cast<int>(big.size()), nullptr);
  EXPECT_EQ(count(FileOp::Write), 3);
  EXPECT_EQ(target->lastWriteData, big.data());
  EXPECT_EQ(count(FileOp::Seek), 0);  // each write started where the target already was
}

// A grain's member buffer is overwritten right after each write; a heap
// buffer handed to writeKeepBuffer is let go at once.
TEST_F(OptimizingStreamTest, FileGetsTheBytesAsTheyWereHandedOver) {
  auto stream = kx::create<kx::COptimizingIOStream>(kx::create<CRecordingStream>(openTarget()), 4096);
  Bytes reused = pattern(4096, 3), expected;
  for (int size : {100, 4096}) {
    stream->write(reused.data(), size, nullptr);
    expected.insert(expected.end(), reused.begin(), reused.begin() + size);
    std::fill(reused.begin(), reused.end(), 0xEE);
  }
  const Bytes grain = pattern(64 * 1024, 4);
  auto piece = kx::create<kx::TBuffer<unsigned char>>(grain.size());
  std::copy(grain.begin(), grain.end(), piece->getData());
  stream->writeKeepBuffer(kx::TConstBufferSlice<unsigned char>(piece, 0, grain.size()), nullptr);
  piece = nullptr;
  expected.insert(expected.end(), grain.begin(), grain.end());
  stream->flush();
  EXPECT_EQ(fileBytes(), expected);
}

TEST_F(OptimizingStreamTest, SequentialReadsGrowReadAhead) {
  setFileBytes(pattern(8 << 20, 5));
  auto stream = open(1 << 20);
  Bytes chunk(64 * 1024);
  for (int i = 0; i < 128; ++i) stream->read(chunk.data(), static_cast<int>(chunk.size()));
  EXPECT_LE(count(FileOp::Read), 4 + 8);  // 64, 128, 256 and 512 KiB, then whole buffers
  EXPECT_EQ(count(FileOp::Seek), 0);
}

TEST_F(OptimizingStreamTest, FailedWritesReachCallerAndKeepState) {
  auto stream = open(16);
  stream->write("abc", 3, nullptr);
  faults->failNth(FileOp::Write, 1);
  EXPECT_THROW(stream->flush(), kx::CFileSystemError);
  stream->flush();  // still buffered, so it can be tried again
  EXPECT_EQ(fileBytes(), (Bytes{'a', 'b', 'c'}));

  faults->failNth(FileOp::Write, 1);
  const Bytes big = pattern(32, 1);
  EXPECT_THROW(stream->write(big.data(), 32, nullptr), kx::CFileSystemError);
  EXPECT_EQ(stream->getPosition(), 3);
  EXPECT_EQ(stream->getLength(), 3);
}

TEST_F(OptimizingStreamTest, FailedWriteInDestructorIsLogged) {
  test::CLogCapture log;
  open(4096)->write("abc", 3, nullptr);  // written back unflushed
  faults->failNth(FileOp::Write, 1, true);
  open(4096)->write("xyz", 3, nullptr);
  ASSERT_EQ(log.count(kx::LogLevel::Error), 1u);
  EXPECT_NE(log.lines[0].text.find("kx::COptimizingIOStream"), std::string::npos);
  EXPECT_NE(log.lines[0].errorText.find("Injected fault"), std::string::npos);
  EXPECT_EQ(fileBytes(), (Bytes{'a', 'b', 'c'}));
}

TEST_F(OptimizingStreamTest, CloseWritesThenRefusesEverythingButUriAndClose) {
  for (const bool failing : {false, true}) {
    SCOPED_TRACE(failing ? "failing write" : "good write");
    auto target = openTarget();
    auto stream = kx::create<kx::COptimizingIOStream>(target, 4096);
    stream->write("abc", 3, nullptr);
    faults->failNth(FileOp::Write, failing ? 1 : 0);
    if (failing) {
      EXPECT_THROW(stream->close(), kx::CFileSystemError);
    } else {
      stream->close();
      EXPECT_EQ(fileBytes().size(), 3u);
    }
    EXPECT_EQ(ioErrorCode([&] { target->getLength(); }), kx::IOERR_STREAM_CLOSED);
    stream->close();
    EXPECT_EQ(stream->getURI(), uri);
    char c = 0;
    const kx::TConstBufferSlice<unsigned char> slice(kx::create<kx::TBuffer<unsigned char>>(1), 0, 1);
    int i = 0;
    for (const auto& operation : std::initializer_list<std::function<void()>>{
             [&] { stream->getLength(); }, [&] { stream->getPosition(); }, [&] { stream->seek(0); },
             [&] { stream->lockRange(0, 1, kx::IStreamBase::LOCK_SHARED); }, [&] { stream->read(&c, 1); },
             [&] { stream->readLax(&c, 1); }, [&] { stream->isEndOfStream(); },
             [&] { stream->write(&c, 1, nullptr); }, [&] { stream->writeKeepBuffer(slice, nullptr); },
             [&] { stream->createWriteBarrier(nullptr); }, [&] { stream->flush(); },
             [&] { stream->setLength(0); }}) {
      EXPECT_EQ(ioErrorCode(operation), kx::IOERR_STREAM_CLOSED) << "operation " << i++;
    }
  }
}

TEST_F(OptimizingStreamTest, InputStreamStartsAtTargetPositionAndForwardsLocks) {
  const Bytes content = pattern(10000, 4);
  setFileBytes(content);
  auto target = openTarget(kx::IIOStream::ACCESS_READ);
  target->seek(100);
  auto stream = kx::create<kx::COptimizingInStream>(target, 1024);
  stream->lockRange(0, 512, kx::IStreamBase::LOCK_SHARED);
  EXPECT_EQ(count(FileOp::Lock), 1);
  ASSERT_EQ(stream->getPosition(), 100);
  Bytes rest(9900);
  stream->read(rest.data(), 9900);
  EXPECT_TRUE(std::equal(rest.begin(), rest.end(), content.begin() + 100));
}

}  // namespace
