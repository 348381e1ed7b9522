// AES-256-CBC encryption of many independent chains side by side.
//
// One CBC chain is serial: each block waits for the one before it, so a core's
// AES unit sits idle most of the time (about 1 GB/s). Interleaving up to eight
// chains keeps it busy, several times the throughput on one core. Only
// encryption needs this; CBC decryption is parallel within one chain and
// OpenSSL already runs it so.
#pragma once

#include <cstddef>

namespace brix {
namespace lanes {

constexpr int kRoundKeyBytes = 15 * 16;

// One chain: `blocks` whole blocks from `source` to `target`, then, if `tail`
// isn't null, the 16 bytes at `tail` as one more block.
struct CChain {
  const unsigned char* source;
  unsigned char* target;
  size_t blocks;
  const unsigned char* tail;
  const unsigned char* iv;
};

// Whether this processor has the AES instructions the functions below use.
bool isAvailable();
// The encryption schedule of a 32-byte key; the caller wipes it.
void expandKey(const unsigned char* key, unsigned char* roundKeys);
// Encrypts every chain. Chains of any lengths mix; the results are those of
// one CBC encryption per chain.
void encryptChains(const unsigned char* roundKeys, const CChain* chains, size_t count);

}  // namespace lanes
}  // namespace brix
