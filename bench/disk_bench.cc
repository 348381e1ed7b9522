// A 1 GiB disk on local files in /tmp, written and then read sequentially in
// 1 MiB requests of mixed data (a quarter zeros, a quarter noise, half text),
// in each layout, plain and encrypted; and reading through a chain of three
// disks against reading the base alone. Counters: MB/s, and the peak resident
// memory of the pass (VmHWM, reset before each pass).
#include <benchmark/benchmark.h>

#include <fstream>
#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/grain_data.h"
#include "tests/support/temp_dir.h"
#include "zarn/disk.h"

namespace {

constexpr int kRequestBytes = 1 << 20;
constexpr int64_t kDiskBytes = int64_t{1} << 30;

struct Layout {
  const char* name;
  bool compressed;
  int64_t limit;
};
const Layout kLayouts[] = {
    {"monolithicSparse", false, -1},
    {"twoGbMaxExtentSparse (256 MiB files)", false, 256 << 20},
    {"streamOptimized", true, -1},
    {"streamOptimized (256 MiB files)", true, 256 << 20},
};

void resetPeakMemory() { std::ofstream("/proc/self/clear_refs") << "5"; }

double peakMemoryMiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}


// Args: layout, encrypted, 0 write / 1 read.
void BM_Disk(benchmark::State& state) {
  const Layout& layout = kLayouts[state.range(0)];
  const kx::String password = state.range(1) ? "benchmark" : "";
  const bool reading = state.range(2) == 1;
  test::CTempDir dir;
  auto fs = kx::create<kx::CLocalFileSystem>();
  const kx::CURI uri = dir.getFileURI("disk.vmdk");
  const auto data = test::mixedData(kRequestBytes);
  std::vector<unsigned char> out(kRequestBytes);
  const auto write = [&] {
    auto disk = zarn::CVMDKDisk::create(fs.get(), uri, kDiskBytes, password, layout.compressed, -1, layout.limit, "",
                                        0xFFFFFFFF, false);
    for (int64_t at = 0; at < kDiskBytes; at += kRequestBytes) disk->write(data.data(), kRequestBytes);
  };
  if (reading) write();
  double peak = 0;
  for (auto _ : state) {
    resetPeakMemory();
    if (reading) {
      auto disk = kx::create<zarn::CVMDKDisk>(fs.get(), uri, kx::IIOStream::ACCESS_READ, password);
      for (int64_t at = 0; at < kDiskBytes; at += kRequestBytes) disk->read(out.data(), kRequestBytes);
      benchmark::DoNotOptimize(out.data());
    } else {
      write();
    }
    peak = std::max(peak, peakMemoryMiB());
  }
  state.SetBytesProcessed(state.iterations() * kDiskBytes);
  state.counters["peak_MiB"] = peak;
  state.SetLabel(std::string(layout.name) + (password.isEmpty() ? "" : ", encrypted") + (reading ? ", read" : ", write"));
}

// Args: chain length (1: the base alone, 3: base, child, grandchild).
void BM_ChainRead(benchmark::State& state) {
  test::CTempDir dir;
  auto fs = kx::create<kx::CLocalFileSystem>();
  const auto data = test::mixedData(kRequestBytes);
  const int64_t size = 256 << 20;
  uint32_t cid = 0xFFFFFFFF;
  std::string parent;
  for (int level = 0; level < state.range(0); ++level) {
    const std::string name = "d" + std::to_string(level) + ".vmdk";
    auto disk = zarn::CVMDKDisk::create(fs.get(), dir.getFileURI(name), size, "", false, -1, -1,
                                        kx::String::FromUTF8(parent.c_str()), cid, false);
    // Each level holds every third MiB, the base all of them.
    for (int64_t at = 0; at < size; at += kRequestBytes) {
      if (level == 0 || (at / kRequestBytes) % 3 == level) {
        disk->seek(at);
        disk->write(data.data(), kRequestBytes);
      }
    }
    cid = disk->getDescriptor()->getContentID();
    parent = name;
  }
  std::vector<unsigned char> out(kRequestBytes);
  for (auto _ : state) {
    auto disk = kx::create<zarn::CVMDKDisk>(fs.get(), dir.getFileURI(parent), kx::IIOStream::ACCESS_READ, "");
    for (int64_t at = 0; at < size; at += kRequestBytes) disk->read(out.data(), kRequestBytes);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * size);
  state.SetLabel(state.range(0) == 1 ? "base alone" : "through a chain of three");
}

}  // namespace

BENCHMARK(BM_Disk)->ArgsProduct({{0, 1, 2, 3}, {0, 1}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(BM_ChainRead)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
