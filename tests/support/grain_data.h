// Grain contents for tests and benchmarks: text that compresses, bytes that
// don't, and a provider that stands in for a parent disk.
#pragma once

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <vector>

#include "zarn/data_preparer.h"
#include "zarn/data_provider.h"

namespace test {

// Compresses to a few hundred bytes: a line of text that changes with
// `seed` and every 8 KiB.
inline std::vector<unsigned char> textGrain(size_t size, uint32_t seed) {
  std::vector<unsigned char> out(size);
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<unsigned char>("grain text line\n"[i % 16] + (i / 8192 + seed) % 5);
  return out;
}

// Doesn't compress: a 64-bit LCG.
inline std::vector<unsigned char> noiseGrain(size_t size, uint64_t seed) {
  std::vector<unsigned char> out(size);
  uint64_t x = seed * 0x9E3779B97F4A7C15ULL + 1;
  for (auto& byte : out) {
    x = x * 6364136223846793005ULL + 1442695040888963407ULL;
    byte = static_cast<unsigned char>(x >> 56);
  }
  return out;
}

// A quarter zeros, a quarter noise, half text, in runs of 64 KiB.
inline std::vector<unsigned char> mixedData(size_t size) {
  std::vector<unsigned char> data(size, 0);
  for (size_t run = 0; run * 65536 < size; ++run) {
    if (run % 4 == 0) continue;
    const auto grain = run % 4 == 1 ? noiseGrain(65536, run) : textGrain(65536, static_cast<uint32_t>(run));
    std::copy(grain.begin(), grain.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(65536, size - run * 65536)),
              data.begin() + static_cast<std::ptrdiff_t>(run * 65536));
  }
  return data;
}

// A parent whose byte at disk position p is (p * 7 + 3) mod 256, and which
// has every grain.
class CPatternProvider final : public kx::CBase, public zarn::IVMDKDataProvider {
 public:
  static unsigned char byteAt(int64_t position) { return static_cast<unsigned char>(position * 7 + 3); }

  void getData(int64_t position, void* buffer, int size) override {
    auto* out = static_cast<unsigned char*>(buffer);
    for (int i = 0; i < size; ++i) out[i] = byteAt(position + i);
  }
  void getPreparedGrainData(int64_t position, kx::TBuffer<unsigned char>& buffer, int grainSize,
                            bool compressed) override {
    kx::TBuffer<unsigned char> plain(static_cast<size_t>(grainSize)), aux;
    getData(position, plain.getData(), grainSize);
    zarn::CVMDKDataPreparer preparer(grainSize / 512, compressed, -1);
    buffer = *preparer.prepareGrainData(&plain, position / grainSize, &aux);
  }
  bool isGrainWritten(int64_t) override { return true; }
};

}  // namespace test
