// One sparse extent of 1 GiB on a local file in /tmp, written and read
// sequentially in 1 MiB requests: plain, compressed and encrypted. Counters:
// MB/s, system calls per grain (every operation that reaches the file system,
// counted by a wrapper), heap allocations per grain in steady state (must be 0).
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/alloc_shim.h"
#include "tests/support/counting_file_system.h"
#include "tests/support/grain_data.h"
#include "tests/support/grain_stack.h"
#include "tests/support/temp_dir.h"
#include "zarn/sparse_extent_file.h"

namespace {

constexpr int kRequestBytes = 1 << 20;
constexpr int64_t kExtentBytes = int64_t{1} << 30;
constexpr int64_t kGrains = kExtentBytes / 65536;
const char* const kLayoutNames[] = {"plain", "compressed", "encrypted"};

struct Setup {
  test::CTempDir dir;
  kx::P<test::CCountingFileSystem> fs = kx::create<test::CCountingFileSystem>(kx::create<kx::CLocalFileSystem>());
  kx::CURI uri = dir.getFileURI("bench.vmdk");
  kx::CURI descriptorURI = dir.getFileURI("bench-descriptor.vmdk");
  kx::P<zarn::CVMDKGrainTableCache> cache = kx::create<zarn::CVMDKGrainTableCache>();

  kx::P<zarn::CVMDKSparseExtentFile> open(int layout, kx::IIOStream::Access access) {
    auto stream = zarn::openVMDKFileStream(fs.get(), uri, access);
    kx::P<brix::ICipher> cipher;
    if (layout == 2) cipher = kx::create<brix::CCipher_AES256CBC>();
    auto updater = kx::create<zarn::CVMDKContentIDUpdater>(fs.get(), descriptorURI,
                                                           kx::create<zarn::CVMDKDescriptor>().get());
    return kx::create<zarn::CVMDKSparseExtentFile>(stream.get(), access, 0, -1, cache.get(), nullptr, updater.get(),
                                                   cipher.get(), test::CGrainStack::testKey(),
                                                   test::CGrainStack::testBaseIV());
  }
  void make(int layout) {
    std::vector<unsigned char> text{'C', 'I', 'D', '=', '1', '\n'};
    text.resize(512, 0);
    int flags = 0;
    auto d = fs->openFile(descriptorURI, kx::IIOStream::ACCESS_READ_WRITE, flags);
    d->write(text.data(), 512, nullptr);
    test::GrainStackOptions o;
    o.compressed = layout == 1;
    o.encrypted = layout == 2;
    o.grainCount = kGrains;
    test::CGrainStack made(*fs, uri, o);
  }
};


void report(benchmark::State& state, Setup& setup, long allocations, int64_t grainsCounted) {
  int64_t calls = 0;
  for (auto op : {test::FileOp::Read, test::FileOp::Write, test::FileOp::Seek, test::FileOp::Flush}) {
    calls += setup.fs->getCount(op);
  }
  state.SetBytesProcessed(state.iterations() * kExtentBytes);
  state.counters["syscalls_per_grain"] = static_cast<double>(calls) / (state.iterations() * kGrains);
  state.counters["allocs_per_grain"] = static_cast<double>(allocations) / grainsCounted;
  state.SetLabel(kLayoutNames[state.range(0)]);
}

void BM_ExtentWrite(benchmark::State& state) {
  const int layout = static_cast<int>(state.range(0));
  Setup setup;
  const auto data = test::mixedData(kRequestBytes);
  long allocations = 0;
  int64_t counted = 0;
  for (auto _ : state) {
    state.PauseTiming();
    setup.make(layout);
    auto extent = setup.open(layout, kx::IIOStream::ACCESS_READ_WRITE);
    setup.fs->reset();
    state.ResumeTiming();
    for (int64_t at = 0; at < kExtentBytes; at += kRequestBytes) {
      if (at == 4 * kRequestBytes) test::startCountingAllocations();  // past the first table block and buffers
      extent->write(data.data(), kRequestBytes);
    }
    allocations += test::stopCountingAllocations();
    counted += kGrains - 4 * kRequestBytes / 65536;
    extent->flushChanges();
    extent = nullptr;
  }
  report(state, setup, allocations, counted);
}

void BM_ExtentRead(benchmark::State& state) {
  const int layout = static_cast<int>(state.range(0));
  Setup setup;
  setup.make(layout);
  {
    const auto data = test::mixedData(kRequestBytes);
    auto extent = setup.open(layout, kx::IIOStream::ACCESS_READ_WRITE);
    for (int64_t at = 0; at < kExtentBytes; at += kRequestBytes) extent->write(data.data(), kRequestBytes);
  }
  std::vector<unsigned char> out(kRequestBytes);
  long allocations = 0;
  int64_t counted = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto extent = setup.open(layout, kx::IIOStream::ACCESS_READ);
    setup.fs->reset();
    state.ResumeTiming();
    for (int64_t at = 0; at < kExtentBytes; at += kRequestBytes) {
      if (at == 4 * kRequestBytes) test::startCountingAllocations();
      extent->read(out.data(), kRequestBytes);
    }
    allocations += test::stopCountingAllocations();
    counted += kGrains - 4 * kRequestBytes / 65536;
    benchmark::DoNotOptimize(out.data());
  }
  report(state, setup, allocations, counted);
}

}  // namespace

BENCHMARK(BM_ExtentWrite)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_ExtentRead)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
