// Steady grain work must not touch the heap: the codecs, the cipher and the
// buffering stream keep their state between calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <vector>

#include "brix/cipher.h"
#include "dfm/miniz_compressor.h"
#include "dfz/zlib_compressor.h"
#include "kx/local_file_system.h"
#include "kx/optimizing_stream.h"
#include "support/alloc_shim.h"
#include "support/temp_dir.h"

namespace {

using test::countAllocations;

constexpr int kGrainBytes = 64 * 1024;

std::vector<unsigned char> halfCompressibleGrain() {
  std::vector<unsigned char> grain(kGrainBytes);
  uint32_t state = 12345;
  for (int i = 0; i < kGrainBytes; ++i) {
    state = state * 1103515245u + 12345u;
    grain[i] = i % 2 ? static_cast<unsigned char>(state >> 24) : static_cast<unsigned char>(i / 512);
  }
  return grain;
}

TEST(SteadyStateAllocationTest, ShimSeesAllocations) {
  // Guards the other tests against a shim that the linker did not pick up.
  EXPECT_GE(countAllocations([] { delete new std::vector<int>(100); }), 1);
  EXPECT_GE(countAllocations([] { std::free(std::malloc(1000)); }), 1);
}

TEST(SteadyStateAllocationTest, CompressorsReuseTheirEngines) {
  const auto grain = halfCompressibleGrain();
  for (int engine : {0, 1}) {
    for (int level : {0, 1, 6}) {
      SCOPED_TRACE(testing::Message() << (engine ? "libdeflate" : "zlib") << " level " << level);
      kx::P<kx::ISimpleCompressor> codec;
      if (engine == 0) {
        codec = kx::create<dfz::CZLibCompressor>(level);
      } else {
        codec = kx::create<dfm::CMiniZCompressor>(level);
      }
      std::vector<unsigned char> packed(codec->getCompressedSizeUpperBound(kGrainBytes)), back(kGrainBytes);
      auto roundTrip = [&] {
        const int size = codec->compressSingleStep(grain.data(), kGrainBytes, packed.data(), int(packed.size()));
        ASSERT_GT(size, 0);
        ASSERT_EQ(codec->decompressSingleStep(packed.data(), size, back.data(), kGrainBytes), kGrainBytes);
      };
      roundTrip();  // lets an engine set itself up lazily
      EXPECT_EQ(countAllocations([&] {
                  for (int i = 0; i < 20; ++i) roundTrip();
                }),
                0);
      EXPECT_EQ(back, grain);
    }
  }
}

TEST(SteadyStateAllocationTest, CipherReusesItsContext) {
  const auto grain = halfCompressibleGrain();
  auto cipher = kx::create<brix::CCipher_AES256CBC>();
  kx::TCryptBuffer<unsigned char> key(32);
  for (int i = 0; i < 32; ++i) key.getData()[i] = static_cast<unsigned char>(i * 7 + 1);
  unsigned char iv[16] = {};
  kx::TBuffer<unsigned char> sealed(kGrainBytes), opened(kGrainBytes);
  auto roundTrip = [&] {
    cipher->encryptData(key, grain.data(), kGrainBytes, sealed, false, iv);
    cipher->decryptData(key, sealed.getData(), kGrainBytes, opened, false, iv);
    ++iv[0];
  };
  roundTrip();
  EXPECT_EQ(countAllocations([&] {
              for (int i = 0; i < 20; ++i) roundTrip();
            }),
            0);
  EXPECT_EQ(std::vector<unsigned char>(opened.getData(), opened.getData() + kGrainBytes), grain);
}

TEST(SteadyStateAllocationTest, BufferedStreamWritesAndReadsWithoutTheHeap) {
  test::CTempDir dir;
  auto fs = kx::create<kx::CLocalFileSystem>();
  int flags = 0;
  auto stream = kx::create<kx::COptimizingIOStream>(
      fs->openFile(dir.getFileURI("grains.bin"), kx::IIOStream::ACCESS_READ_WRITE, flags));
  const auto grain = halfCompressibleGrain();
  auto piece = kx::create<kx::TBuffer<unsigned char>>(kGrainBytes);
  std::copy(grain.begin(), grain.end(), piece->getData());
  const kx::TConstBufferSlice<unsigned char> slice(piece, 0, kGrainBytes);
  std::vector<unsigned char> back(kGrainBytes);

  // One round: a grain by copy, one by slice, and its 4-byte table words.
  auto writeRound = [&](uint32_t round) {
    stream->write(grain.data(), kGrainBytes, nullptr);
    stream->writeKeepBuffer(slice, nullptr);
    for (uint32_t word = 0; word < 512; ++word) stream->write(&round, 4, nullptr);
  };
  writeRound(0);
  EXPECT_EQ(countAllocations([&] {
              for (uint32_t round = 1; round < 64; ++round) writeRound(round);
              stream->flush();
            }),
            0);

  auto readRound = [&] {
    stream->read(back.data(), kGrainBytes);
    stream->read(back.data(), kGrainBytes);
    stream->seek(stream->getPosition() + 2048);
  };
  stream->seek(2 * kGrainBytes + 2048);
  readRound();  // the read-ahead buffer comes at the first read
  EXPECT_EQ(countAllocations([&] {
              for (int round = 2; round < 64; ++round) readRound();
            }),
            0);
  EXPECT_EQ(back, grain);
}

}  // namespace
