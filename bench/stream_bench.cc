// Throughput of the buffering stream, and what it costs its target: target
// calls per 64 KiB piece or per buffer, counted by a wrapper around the file
// stream. Runs on a memory file and on a local file in /tmp. Also the price of
// a flush that reaches the device, and of opening a file to read its header.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "kx/memory_file_system.h"
#include "kx/optimizing_stream.h"
#include "tests/support/stream_wrapper.h"

namespace {

constexpr int kPieceBytes = 64 * 1024;
constexpr int kFileBytes = 16 << 20;
constexpr int kBufferBytes = kx::COptimizingInStream::kDefaultBufferSizeBytes;

enum Place { kMemory = 0, kLocal = 1 };

// Counts the calls that reach the file. (The test library's counting file
// system needs GoogleTest, which the benchmarks don't link.)
struct Counts {
  int64_t reads = 0, writes = 0, seeks = 0;
};

class CCountingStream final : public test::CStreamWrapper {
 public:
  CCountingStream(const kx::P<kx::IIOStream>& target, Counts* counts)
      : CStreamWrapper(target), counts_(counts) {}
  void seek(int64_t position) override {
    ++counts_->seeks;
    CStreamWrapper::seek(position);
  }
  void read(void* buffer, int size) override {
    ++counts_->reads;
    CStreamWrapper::read(buffer, size);
  }
  int readLax(void* buffer, int size) override {
    ++counts_->reads;
    return CStreamWrapper::readLax(buffer, size);
  }
  void write(const void* data, int size, kx::IWriteBarrier* barrier) override {
    ++counts_->writes;
    CStreamWrapper::write(data, size, barrier);
  }
  void writeKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data,
                       kx::IWriteBarrier* barrier) override {
    ++counts_->writes;
    CStreamWrapper::writeKeepBuffer(data, barrier);
  }

 private:
  Counts* counts_;
};

struct Target {
  kx::P<kx::IFileSystem> fs;
  kx::CURI uri;
  Counts counts;

  explicit Target(int64_t place) {
    if (place == kMemory) {
      fs = kx::create<kx::CMemoryFileSystem>();
      uri = kx::CURI(kx::String("mem:///bench.bin"));
    } else {
      fs = kx::create<kx::CLocalFileSystem>();
      uri = kx::CURI(kx::String("file:///tmp/zarn-stream-bench-" + std::to_string(getpid()) + ".bin"));
    }
  }
  ~Target() { fs->deleteFile(uri, true); }

  kx::P<kx::COptimizingIOStream> open() {
    int flags = 0;
    auto file =
        kx::create<CCountingStream>(fs->openFile(uri, kx::IIOStream::ACCESS_READ_WRITE, flags), &counts);
    return kx::create<kx::COptimizingIOStream>(file);
  }
};

const char* placeName(int64_t place) { return place == kMemory ? "memory" : "local /tmp"; }

// range(0): place; range(1): 0 write, 1 writeKeepBuffer.
void BM_SequentialWrite64K(benchmark::State& state) {
  Target target(state.range(0));
  auto piece = kx::create<kx::TBuffer<unsigned char>>(kPieceBytes);
  const kx::TConstBufferSlice<unsigned char> slice(piece, 0, kPieceBytes);
  target.counts = Counts();
  for (auto _ : state) {
    auto stream = target.open();
    for (int written = 0; written < kFileBytes; written += kPieceBytes) {
      if (state.range(1)) {
        stream->writeKeepBuffer(slice, nullptr);
      } else {
        stream->write(piece->getData(), kPieceBytes, nullptr);
      }
    }
  }
  const double pieces = double(state.iterations()) * (kFileBytes / kPieceBytes);
  state.SetBytesProcessed(int64_t(state.iterations()) * kFileBytes);
  state.counters["targetWritesPer64K"] = double(target.counts.writes) / pieces;
  state.counters["targetSeeksPer64K"] = double(target.counts.seeks) / pieces;
  state.SetLabel(std::string(placeName(state.range(0))) + (state.range(1) ? ", writeKeepBuffer" : ", write"));
}
BENCHMARK(BM_SequentialWrite64K)
    ->ArgsProduct({{kMemory, kLocal}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Header fields and table words: 4-byte writes, 4 MiB per round.
void BM_SequentialWrite4Bytes(benchmark::State& state) {
  constexpr int kRoundBytes = 4 << 20;
  Target target(state.range(0));
  target.counts = Counts();
  for (auto _ : state) {
    auto stream = target.open();
    for (uint32_t i = 0; i < kRoundBytes / 4; ++i) stream->write(&i, 4, nullptr);
  }
  const double buffers = double(state.iterations()) * kRoundBytes / kBufferBytes;
  state.SetItemsProcessed(int64_t(state.iterations()) * (kRoundBytes / 4));
  state.SetBytesProcessed(int64_t(state.iterations()) * kRoundBytes);
  state.counters["targetWritesPerBuffer"] = double(target.counts.writes) / buffers;
  state.SetLabel(placeName(state.range(0)));
}
BENCHMARK(BM_SequentialWrite4Bytes)->Arg(kMemory)->Arg(kLocal)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SequentialRead64K(benchmark::State& state) {
  Target target(state.range(0));
  {
    auto stream = target.open();
    const std::vector<unsigned char> piece(kPieceBytes, 0x5A);
    for (int written = 0; written < kFileBytes; written += kPieceBytes) {
      stream->write(piece.data(), kPieceBytes, nullptr);
    }
  }
  std::vector<unsigned char> piece(kPieceBytes);
  target.counts = Counts();
  for (auto _ : state) {
    auto stream = target.open();
    for (int read = 0; read < kFileBytes; read += kPieceBytes) stream->read(piece.data(), kPieceBytes);
    benchmark::DoNotOptimize(piece.data());
  }
  const double pieces = double(state.iterations()) * (kFileBytes / kPieceBytes);
  state.SetBytesProcessed(int64_t(state.iterations()) * kFileBytes);
  state.counters["targetReadsPer64K"] = double(target.counts.reads) / pieces;
  state.SetLabel(placeName(state.range(0)));
}
BENCHMARK(BM_SequentialRead64K)->Arg(kMemory)->Arg(kLocal)->Unit(benchmark::kMillisecond)->UseRealTime();

// A flush after 1 MiB of buffered writes: the write to the file plus the wait
// for the device.
void BM_FlushAfter1MiB(benchmark::State& state) {
  Target target(kLocal);
  auto stream = target.open();
  const std::vector<unsigned char> piece(kPieceBytes, 0x5A);
  for (auto _ : state) {
    state.PauseTiming();
    stream->seek(0);
    for (int written = 0; written < kBufferBytes; written += kPieceBytes) {
      stream->write(piece.data(), kPieceBytes, nullptr);
    }
    state.ResumeTiming();
    stream->flush();
  }
  state.SetLabel(placeName(kLocal));
}
BENCHMARK(BM_FlushAfter1MiB)->Unit(benchmark::kMicrosecond)->UseRealTime();

// What a disk pays each time it opens an extent to look at its header.
void BM_OpenAndReadHeader(benchmark::State& state) {
  Target target(kLocal);
  {
    auto stream = target.open();
    const std::vector<unsigned char> piece(kPieceBytes, 0x5A);
    for (int written = 0; written < kFileBytes; written += kPieceBytes) {
      stream->write(piece.data(), kPieceBytes, nullptr);
    }
  }
  unsigned char header[512];
  for (auto _ : state) {
    int flags = 0;
    auto stream = kx::create<kx::COptimizingIOStream>(
        target.fs->openFile(target.uri, kx::IIOStream::ACCESS_READ, flags));
    stream->read(header, sizeof(header));
    benchmark::DoNotOptimize(header);
  }
  state.SetLabel(placeName(kLocal));
}
BENCHMARK(BM_OpenAndReadHeader)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
