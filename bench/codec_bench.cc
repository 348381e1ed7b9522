// Throughput of the deflate wrappers and the grain cipher on 64 KiB grains of
// mixed content (text-like, zeros and random bytes; about 2:1 for deflate).
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "brix/cipher.h"
#include "dfm/miniz_compressor.h"
#include "dfz/zlib_compressor.h"

namespace {

constexpr int kGrainBytes = 64 * 1024;

// 40% words drawn at random from a small vocabulary, 20% zeros, 40% random.
std::vector<unsigned char> mixedGrain() {
  std::mt19937 rng(42);
  static const char* const kWords[] = {"grain", "table", "sector", "extent", "disk",  "the",
                                       "of",    "a",     "header", "marker", "write", "read",
                                       "slot",  "key",   "cache",  "parent"};
  std::vector<unsigned char> grain;
  grain.reserve(kGrainBytes);
  while (grain.size() < kGrainBytes * 4 / 10) {
    for (const char* c = kWords[rng() % 16]; *c; ++c) grain.push_back(static_cast<unsigned char>(*c));
    grain.push_back(rng() % 8 == 0 ? '\n' : ' ');
  }
  grain.resize(kGrainBytes * 6 / 10, 0);
  while (grain.size() < kGrainBytes) grain.push_back(static_cast<unsigned char>(rng()));
  return grain;
}

kx::P<kx::ISimpleCompressor> makeEngine(int engine, int level) {
  if (engine == 0) return kx::create<dfz::CZLibCompressor>(level);
  return kx::create<dfm::CMiniZCompressor>(level);
}

void setLabel(benchmark::State& state, int compressedBytes) {
  state.SetLabel(std::string(state.range(0) == 0 ? "zlib" : "miniz") + "-" + std::to_string(state.range(1)) +
                 " ratio " + std::to_string(double(kGrainBytes) / compressedBytes).substr(0, 4));
}

void BM_Compress(benchmark::State& state) {
  auto engine = makeEngine(int(state.range(0)), int(state.range(1)));
  const auto grain = mixedGrain();
  std::vector<unsigned char> out(engine->getCompressedSizeUpperBound(kGrainBytes));
  int packed = 0;
  for (auto _ : state) {
    packed = engine->compressSingleStep(grain.data(), kGrainBytes, out.data(), int(out.size()));
    benchmark::DoNotOptimize(packed);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kGrainBytes);
  setLabel(state, packed);
}

void BM_Decompress(benchmark::State& state) {
  auto engine = makeEngine(int(state.range(0)), int(state.range(1)));
  const auto grain = mixedGrain();
  std::vector<unsigned char> packed(engine->getCompressedSizeUpperBound(kGrainBytes)), back(kGrainBytes);
  const int packedBytes =
      engine->compressSingleStep(grain.data(), kGrainBytes, packed.data(), int(packed.size()));
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        engine->decompressSingleStep(packed.data(), packedBytes, back.data(), kGrainBytes));
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kGrainBytes);
  setLabel(state, packedBytes);
}

// Args: engine (0 zlib, 1 miniz), level.
void engineArgs(benchmark::internal::Benchmark* b) {
  for (int engine : {0, 1}) {
    for (int level : {0, 1, 6}) b->Args({engine, level});
  }
}
BENCHMARK(BM_Compress)->Apply(engineArgs);
BENCHMARK(BM_Decompress)->Apply(engineArgs);

void BM_AES256CBC(benchmark::State& state) {
  const bool encrypting = state.range(0) == 1;
  auto cipher = kx::create<brix::CCipher_AES256CBC>();
  kx::TCryptBuffer<unsigned char> key(32);
  for (int i = 0; i < 32; ++i) key.getData()[i] = static_cast<unsigned char>(i * 7 + 1);
  const unsigned char iv[16] = {1, 2, 3};
  const auto grain = mixedGrain();
  kx::TBuffer<unsigned char> out(kGrainBytes);
  for (auto _ : state) {
    if (encrypting)
      cipher->encryptData(key, grain.data(), kGrainBytes, out, false, iv);
    else
      cipher->decryptData(key, grain.data(), kGrainBytes, out, false, iv);
    benchmark::DoNotOptimize(out.getData());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kGrainBytes);
  state.SetLabel(encrypting ? "encryptData" : "decryptData");
}
BENCHMARK(BM_AES256CBC)->Arg(1)->Arg(0);

// Grains encrypted together, each its own chain, as the tool's threads hand
// them over: the argument is how many at once.
void BM_AES256CBCMany(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  auto cipher = kx::create<brix::CCipher_AES256CBC>();
  kx::TCryptBuffer<unsigned char> key(32);
  for (int i = 0; i < 32; ++i) key.getData()[i] = static_cast<unsigned char>(i * 7 + 1);
  const auto grain = mixedGrain();
  std::vector<kx::TBuffer<unsigned char>> out(static_cast<size_t>(count));
  std::vector<unsigned char> ivs(static_cast<size_t>(count) * 16, 5);
  std::vector<brix::CDataJob> jobs;
  for (int i = 0; i < count; ++i) jobs.push_back({grain.data(), kGrainBytes, &out[i], false, &ivs[i * 16]});
  for (auto _ : state) {
    cipher->encryptDataMany(key, jobs.data(), count);
    benchmark::DoNotOptimize(out[0].getData());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kGrainBytes * count);
}
BENCHMARK(BM_AES256CBCMany)->Arg(1)->Arg(4)->Arg(8)->Arg(16);

}  // namespace
