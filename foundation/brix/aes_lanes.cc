#include "foundation/brix/aes_lanes.h"

#include <openssl/crypto.h>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <immintrin.h>
#define BRIX_LANES 1
#define BRIX_AES_TARGET __attribute__((target("aes,sse4.1")))
#endif

namespace brix {
namespace lanes {

#ifdef BRIX_LANES
namespace {

constexpr int kMaxLanes = 8;

struct CLane {
  const unsigned char* source;
  unsigned char* target;
  size_t blocks;
  const unsigned char* tail;
  __m128i chain;
};

// `blocks` blocks of each of the L first lanes, their rounds interleaved.
template <int L>
BRIX_AES_TARGET void runLanes(const __m128i* roundKeys, CLane* lanes, size_t blocks) {
  __m128i chain[L];
  const unsigned char* source[L];
  unsigned char* target[L];
#pragma GCC unroll 8
  for (int l = 0; l < L; ++l) {
    chain[l] = lanes[l].chain;
    source[l] = lanes[l].source;
    target[l] = lanes[l].target;
  }
  for (size_t b = 0; b < blocks; ++b) {
    __m128i x[L];
    const __m128i first = roundKeys[0];
#pragma GCC unroll 8
    for (int l = 0; l < L; ++l) {
      const __m128i plain = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source[l] + 16 * b));
      x[l] = _mm_xor_si128(_mm_xor_si128(plain, chain[l]), first);
    }
#pragma GCC unroll 13
    for (int r = 1; r < 14; ++r) {
      const __m128i key = roundKeys[r];
#pragma GCC unroll 8
      for (int l = 0; l < L; ++l) x[l] = _mm_aesenc_si128(x[l], key);
    }
    const __m128i last = roundKeys[14];
#pragma GCC unroll 8
    for (int l = 0; l < L; ++l) {
      chain[l] = _mm_aesenclast_si128(x[l], last);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(target[l] + 16 * b), chain[l]);
    }
  }
#pragma GCC unroll 8
  for (int l = 0; l < L; ++l) {
    lanes[l].chain = chain[l];
    lanes[l].source = source[l] + 16 * blocks;
    lanes[l].target = target[l] + 16 * blocks;
  }
}

BRIX_AES_TARGET void runActive(int active, const __m128i* roundKeys, CLane* lanes, size_t blocks) {
  switch (active) {
    case 1: return runLanes<1>(roundKeys, lanes, blocks);
    case 2: return runLanes<2>(roundKeys, lanes, blocks);
    case 3: return runLanes<3>(roundKeys, lanes, blocks);
    case 4: return runLanes<4>(roundKeys, lanes, blocks);
    case 5: return runLanes<5>(roundKeys, lanes, blocks);
    case 6: return runLanes<6>(roundKeys, lanes, blocks);
    case 7: return runLanes<7>(roundKeys, lanes, blocks);
    default: return runLanes<8>(roundKeys, lanes, blocks);
  }
}

// Makes a lane whose whole blocks are done go on with its tail block, if any;
// false when the lane has nothing left.
bool takeTail(CLane& lane) {
  if (lane.blocks > 0) return true;
  if (!lane.tail) return false;
  lane.source = lane.tail;
  lane.blocks = 1;
  lane.tail = nullptr;
  return true;
}

// The word-by-word running XOR of a schedule step: each 32-bit word of the
// result is the XOR of that word and all the words below it.
BRIX_AES_TARGET __m128i runningXor(__m128i words) {
  words = _mm_xor_si128(words, _mm_slli_si128(words, 4));
  return _mm_xor_si128(words, _mm_slli_si128(words, 8));
}

BRIX_AES_TARGET __m128i assistFirst(__m128i previous, __m128i assist) {
  return _mm_xor_si128(runningXor(previous), _mm_shuffle_epi32(assist, 0xff));
}

BRIX_AES_TARGET __m128i assistSecond(__m128i first, __m128i previous) {
  const __m128i assist = _mm_shuffle_epi32(_mm_aeskeygenassist_si128(first, 0x00), 0xaa);
  return _mm_xor_si128(runningXor(previous), assist);
}

}  // namespace

bool isAvailable() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  return __get_cpuid(1, &a, &b, &c, &d) && (c & bit_AES) && (c & bit_SSE4_1);
}

BRIX_AES_TARGET void expandKey(const unsigned char* key, unsigned char* roundKeys) {
  __m128i* out = reinterpret_cast<__m128i*>(roundKeys);
  __m128i even = _mm_loadu_si128(reinterpret_cast<const __m128i*>(key));
  __m128i odd = _mm_loadu_si128(reinterpret_cast<const __m128i*>(key + 16));
  _mm_storeu_si128(out, even);
  _mm_storeu_si128(out + 1, odd);
  // The round constant is an immediate operand, so each step is spelt out.
#define BRIX_KEY_STEP(rcon, index)                                   \
  even = assistFirst(even, _mm_aeskeygenassist_si128(odd, rcon));    \
  _mm_storeu_si128(out + (index), even);                             \
  if ((index) < 14) {                                                \
    odd = assistSecond(even, odd);                                   \
    _mm_storeu_si128(out + (index) + 1, odd);                        \
  }
  BRIX_KEY_STEP(0x01, 2)
  BRIX_KEY_STEP(0x02, 4)
  BRIX_KEY_STEP(0x04, 6)
  BRIX_KEY_STEP(0x08, 8)
  BRIX_KEY_STEP(0x10, 10)
  BRIX_KEY_STEP(0x20, 12)
  BRIX_KEY_STEP(0x40, 14)
#undef BRIX_KEY_STEP
}

BRIX_AES_TARGET void encryptChains(const unsigned char* roundKeyBytes, const CChain* chains, size_t count) {
  __m128i roundKeys[15];
  for (int r = 0; r < 15; ++r) {
    roundKeys[r] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(roundKeyBytes + 16 * r));
  }
  CLane lanes[kMaxLanes];
  int active = 0;
  size_t next = 0;
  for (;;) {
    while (active < kMaxLanes && next < count) {
      const CChain& chain = chains[next++];
      CLane& lane = lanes[active];
      lane.source = chain.source;
      lane.target = chain.target;
      lane.blocks = chain.blocks;
      lane.tail = chain.tail;
      lane.chain = _mm_loadu_si128(reinterpret_cast<const __m128i*>(chain.iv));
      if (takeTail(lane)) ++active;
    }
    if (active == 0) break;
    // As far as the shortest lane goes; lanes that end make room for the
    // chains still waiting.
    size_t step = lanes[0].blocks;
    for (int l = 1; l < active; ++l) step = lanes[l].blocks < step ? lanes[l].blocks : step;
    runActive(active, roundKeys, lanes, step);
    int kept = 0;
    for (int l = 0; l < active; ++l) {
      lanes[l].blocks -= step;
      if (takeTail(lanes[l])) lanes[kept++] = lanes[l];
    }
    active = kept;
  }
  OPENSSL_cleanse(roundKeys, sizeof(roundKeys));
}

#else

bool isAvailable() { return false; }
void expandKey(const unsigned char*, unsigned char*) {}
void encryptChains(const unsigned char*, const CChain*, size_t) {}

#endif

}  // namespace lanes
}  // namespace brix
