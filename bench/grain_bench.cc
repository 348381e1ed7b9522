// The grain store over a local file in /tmp: sequential writes and reads of
// whole grains and of 4 KiB pieces, plain, compressed, encrypted and both.
// Counters: MB/s, heap allocations per grain after the first grain (must be
// 0), and stream reads per grain as the grain asks for them. The compression
// benchmarks put the grain compressor next to its engine at the same level.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "dfm/miniz_compressor.h"
#include "kx/local_file_system.h"
#include "tests/support/alloc_shim.h"
#include "tests/support/grain_data.h"
#include "tests/support/grain_stack.h"
#include "tests/support/stream_wrapper.h"
#include "tests/support/temp_dir.h"
#include "zarn/compressor.h"

namespace {

constexpr int kGrainBytes = 64 * 1024;
constexpr int kGrains = 256;  // 16 MiB per pass

const char* const kLayoutNames[] = {"plain", "compressed", "encrypted", "encrypted+compressed"};

class CCountingStream final : public test::CStreamWrapper {
 public:
  using CStreamWrapper::CStreamWrapper;
  void read(void* buffer, int size) override {
    ++reads;
    CStreamWrapper::read(buffer, size);
  }
  int64_t reads = 0;
};

// Half text, half noise: compresses to a bit over half.
std::vector<unsigned char> mixedGrain(uint32_t seed) {
  std::vector<unsigned char> grain = test::textGrain(kGrainBytes, seed);
  const std::vector<unsigned char> noise = test::noiseGrain(kGrainBytes / 2, seed);
  std::copy(noise.begin(), noise.end(), grain.begin() + kGrainBytes / 2);
  return grain;
}

test::GrainStackOptions options(int layout, bool create) {
  test::GrainStackOptions o;
  o.compressed = layout == 1 || layout == 3;
  o.encrypted = layout >= 2;
  o.grainCount = kGrains;
  o.create = create;
  return o;
}

// Args: layout (0 to 3), piece size in bytes.
void BM_GrainWrite(benchmark::State& state) {
  const int layout = static_cast<int>(state.range(0)), piece = static_cast<int>(state.range(1));
  test::CTempDir dir;
  auto fs = kx::create<kx::CLocalFileSystem>();
  const kx::CURI uri = dir.getFileURI("bench.vmdk");
  const std::vector<unsigned char> grain = mixedGrain(1);
  long allocations = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto stack = std::make_unique<test::CGrainStack>(*fs, uri, options(layout, true));
    state.ResumeTiming();
    for (int g = 0; g < kGrains; ++g) {
      // Opening grain 2 stores grain 1: the first grain's store is the one that sets up.
      if (g == 2) test::startCountingAllocations();
      stack->openGrain(g);
      for (int at = 0; at < kGrainBytes; at += piece) stack->grain->write(grain.data() + at, piece);
    }
    allocations += test::stopCountingAllocations();
    stack->flush();
    state.PauseTiming();
    stack.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kGrains} * kGrainBytes);
  state.counters["allocs_per_grain"] = static_cast<double>(allocations) / (state.iterations() * (kGrains - 2));
  state.SetLabel(std::string(kLayoutNames[layout]) + (piece == kGrainBytes ? ", whole grains" : ", 4 KiB pieces"));
}

void BM_GrainRead(benchmark::State& state) {
  const int layout = static_cast<int>(state.range(0)), piece = static_cast<int>(state.range(1));
  test::CTempDir dir;
  auto fs = kx::create<kx::CLocalFileSystem>();
  const kx::CURI uri = dir.getFileURI("bench.vmdk");
  {
    test::CGrainStack stack(*fs, uri, options(layout, true));
    for (int g = 0; g < kGrains; ++g) {
      const std::vector<unsigned char> grain = mixedGrain(g);
      stack.writeAt(g, 0, grain.data(), kGrainBytes);
    }
    stack.flush();
  }
  std::vector<unsigned char> out(kGrainBytes);
  long allocations = 0;
  int64_t reads = 0;
  for (auto _ : state) {
    state.PauseTiming();
    kx::P<CCountingStream> counter;
    auto o = options(layout, false);
    o.access = kx::IIOStream::ACCESS_READ;
    o.wrapStream = [&](const kx::P<kx::IIOStream>& s) {
      counter = kx::create<CCountingStream>(s);
      return kx::P<kx::IIOStream>(counter);
    };
    auto stack = std::make_unique<test::CGrainStack>(*fs, uri, o);
    stack->openGrain(0);  // loads the tables: reads after this are the grains'
    counter->reads = 0;
    state.ResumeTiming();
    for (int g = 0; g < kGrains; ++g) {
      if (g == 1) test::startCountingAllocations();
      stack->openGrain(g);
      for (int at = 0; at < kGrainBytes; at += piece) stack->grain->read(out.data() + at, piece);
    }
    allocations += test::stopCountingAllocations();
    reads += counter->reads;
    benchmark::DoNotOptimize(out.data());
    state.PauseTiming();
    stack.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kGrains} * kGrainBytes);
  state.counters["allocs_per_grain"] = static_cast<double>(allocations) / (state.iterations() * (kGrains - 1));
  state.counters["stream_reads_per_grain"] = static_cast<double>(reads) / (state.iterations() * kGrains);
  state.SetLabel(std::string(kLayoutNames[layout]) + (piece == kGrainBytes ? ", whole grains" : ", 4 KiB pieces"));
}

// Args: level; 0 the engine alone, 1 the grain compressor over it.
void BM_Compress(benchmark::State& state) {
  const int level = static_cast<int>(state.range(0));
  kx::P<kx::ISimpleCompressor> codec;
  if (state.range(1)) {
    codec = kx::create<zarn::CVMDKCompressor>(level);
  } else {
    codec = kx::create<dfm::CMiniZCompressor>(level);
  }
  const std::vector<unsigned char> grain = mixedGrain(3);
  std::vector<unsigned char> out(static_cast<size_t>(codec->getCompressedSizeUpperBound(kGrainBytes)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        codec->compressSingleStep(grain.data(), kGrainBytes, out.data(), static_cast<int>(out.size())));
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kGrainBytes});
  state.SetLabel(codec->getInternalDesc().toUTF8());
}

void layouts(benchmark::internal::Benchmark* b) {
  for (int layout = 0; layout < 4; ++layout) {
    for (int piece : {kGrainBytes, 4096}) b->Args({layout, piece});
  }
}

}  // namespace

BENCHMARK(BM_GrainWrite)->Apply(layouts)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_GrainRead)->Apply(layouts)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Compress)->ArgsProduct({{1, 6}, {0, 1}});
