// Creation of empty extent files against copying a file of the same size.
//
// The empty extent of a 2 TiB monolithic disk (2^25 grains of 64 KiB) has
// 256 MiB of metadata; writing it should cost about what `cp` of a 256 MiB
// file costs, since both are one sequential pass.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "kx/local_file_system.h"
#include "zarn/empty_extent_file.h"

namespace {

std::string tempDir() {
  static std::string dir = [] {
    char pattern[] = "/tmp/zarn-bench-XXXXXX";
    const char* made = mkdtemp(pattern);
    return std::string(made ? made : "/tmp");
  }();
  return dir;
}

void createExtent(benchmark::State& state, int64_t grainCount, bool compressed) {
  auto fs = kx::create<kx::CLocalFileSystem>();
  const std::string path = tempDir() + "/extent.vmdk";
  const kx::CURI uri(kx::String("file://") + kx::String(path));
  kx::TBuffer<unsigned char> zeros(65536);
  int64_t bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    fs->deleteFile(uri, true);
    state.ResumeTiming();
    zarn::createEmptyVMDKSparseExtentFile(fs.get(), uri, compressed, grainCount, 128, zeros, nullptr, 0, {});
    state.PauseTiming();
    int flags = 0;
    bytes += fs->openFile(uri, kx::IIOStream::ACCESS_READ, flags)->getLength();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(bytes);
  fs->deleteFile(uri, true);
}

void BM_CreateEmpty2TiBPlain(benchmark::State& state) { createExtent(state, int64_t{1} << 25, false); }
void BM_CreateEmpty2TiBCompressed(benchmark::State& state) { createExtent(state, int64_t{1} << 25, true); }
void BM_CreateEmpty100MiBPlain(benchmark::State& state) { createExtent(state, 1600, false); }

// The yardstick: cp of a file as large as the 2 TiB extent's metadata.
void BM_CopyWithCp256MiB(benchmark::State& state) {
  const std::string source = tempDir() + "/source.bin";
  const std::string target = tempDir() + "/target.bin";
  const std::string make = "head -c 268435456 /dev/urandom > " + source;
  if (std::system(make.c_str()) != 0) {
    state.SkipWithError("could not make the source file");
    return;
  }
  const std::string copy = "cp " + source + " " + target;
  for (auto _ : state) {
    state.PauseTiming();
    std::remove(target.c_str());
    state.ResumeTiming();
    if (std::system(copy.c_str()) != 0) state.SkipWithError("cp failed");
  }
  state.SetBytesProcessed(state.iterations() * (int64_t{1} << 28));
  std::remove(source.c_str());
  std::remove(target.c_str());
}

BENCHMARK(BM_CreateEmpty2TiBPlain)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CreateEmpty2TiBCompressed)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CopyWithCp256MiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CreateEmpty100MiBPlain)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
