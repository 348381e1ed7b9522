#include "brix/cipher.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <climits>
#include <cstring>
#include <vector>

#include "foundation/brix/aes_lanes.h"
#include "foundation/brix/openssl_error.h"
#include "kx/error.h"

namespace brix {
namespace {

constexpr int kKeyBytes = 32;
constexpr int kBlockBytes = 16;

}  // namespace

CCipher_AES256CBC::CCipher_AES256CBC() {
  constexpr const char* kContext = "CCipher_AES256CBC::CCipher_AES256CBC";
  cipher_ = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
  if (!cipher_) throwOpenSSLError(kContext, "EVP_CIPHER_fetch");
  ctx_ = EVP_CIPHER_CTX_new();
  // Binding the cipher now makes every later init a re-key of the same
  // context, which allocates nothing; padding is off for good.
  if (!ctx_ || EVP_CipherInit_ex2(ctx_, cipher_, nullptr, nullptr, 1, nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(ctx_, 0) != 1) {
    EVP_CIPHER_CTX_free(ctx_);
    EVP_CIPHER_free(cipher_);
    throwOpenSSLError(kContext, "cipher setup");
  }
}

CCipher_AES256CBC::~CCipher_AES256CBC() {
  EVP_CIPHER_CTX_free(ctx_);
  EVP_CIPHER_free(cipher_);
}

kx::String CCipher_AES256CBC::getID() const { return "aes256cbc"; }
int CCipher_AES256CBC::getKeyLength() const { return kKeyBytes; }
int CCipher_AES256CBC::getBlockLength() const { return kBlockBytes; }

void CCipher_AES256CBC::encrypt(const kx::TCryptBuffer<unsigned char>& key, const void* source,
                                int sourceSize, kx::TBuffer<unsigned char>& target, bool append,
                                const void* iv) {
  transform("CCipher_AES256CBC::encrypt", true, key, source, sourceSize, target, append, iv);
}

void CCipher_AES256CBC::decrypt(const kx::TCryptBuffer<unsigned char>& key, const void* source,
                                int sourceSize, kx::TBuffer<unsigned char>& target, bool append,
                                const void* iv) {
  transform("CCipher_AES256CBC::decrypt", false, key, source, sourceSize, target, append, iv);
}

void CCipher_AES256CBC::encryptData(const kx::TCryptBuffer<unsigned char>& key, const void* source,
                                    int sourceSize, kx::TBuffer<unsigned char>& target, bool append,
                                    const void* iv) {
  transform("CCipher_AES256CBC::encryptData", true, key, source, sourceSize, target, append, iv);
}

void CCipher_AES256CBC::decryptData(const kx::TCryptBuffer<unsigned char>& key, const void* source,
                                    int sourceSize, kx::TBuffer<unsigned char>& target, bool append,
                                    const void* iv) {
  transform("CCipher_AES256CBC::decryptData", false, key, source, sourceSize, target, append, iv);
}

void CCipher_AES256CBC::checkArguments(const char* context, bool encrypting,
                                       const kx::TCryptBuffer<unsigned char>& key, const void* source,
                                       int sourceSize, const void* iv) const {
  if (key.getUsed() != static_cast<size_t>(kKeyBytes)) {
    throw kx::CInvalidArgError(
        context, "Wrong key size",
        kx::CProps().add("keyBytes", uint64_t{key.getUsed()}).add("expected", kKeyBytes));
  }
  if (sourceSize < 0 || sourceSize > INT_MAX - kBlockBytes) {
    throw kx::CInvalidArgError(context, "Source size out of range",
                               kx::CProps().add("sourceSize", sourceSize));
  }
  if (!encrypting && sourceSize % kBlockBytes != 0) {
    throw kx::CInvalidArgError(context, "Source size is not a whole number of blocks",
                               kx::CProps().add("sourceSize", sourceSize).add("blockBytes", kBlockBytes));
  }
  if (!iv) throw kx::CInvalidArgError(context, "No initialisation vector");
  if (sourceSize > 0 && !source) throw kx::CInvalidArgError(context, "No source data");
}

void ICipher::encryptDataMany(const kx::TCryptBuffer<unsigned char>& key, const CDataJob* jobs, int count) {
  for (int i = 0; i < count; ++i) {
    encryptData(key, jobs[i].source, jobs[i].sourceSize, *jobs[i].target, jobs[i].append, jobs[i].iv);
  }
}

void CCipher_AES256CBC::encryptDataMany(const kx::TCryptBuffer<unsigned char>& key, const CDataJob* jobs,
                                        int count) {
  constexpr const char* kContext = "CCipher_AES256CBC::encryptDataMany";
  static const bool kLanes = lanes::isAvailable();
  if (count <= 0) return;  // no key schedule for nothing
  if (!kLanes) {
    ICipher::encryptDataMany(key, jobs, count);
    return;
  }
  for (int i = 0; i < count; ++i) {
    checkArguments(kContext, true, key, jobs[i].source, jobs[i].sourceSize, jobs[i].iv);
    if (!jobs[i].target) throw kx::CInvalidArgError(kContext, "No target buffer");
  }
  // Room for the chains and the zero-filled last blocks, reused by the
  // thread's later calls.
  thread_local std::vector<lanes::CChain> chains;
  thread_local std::vector<unsigned char> tails;
  chains.resize(static_cast<size_t>(count));
  tails.resize(static_cast<size_t>(count) * kBlockBytes);
  struct Scrubber {
    unsigned char roundKeys[lanes::kRoundKeyBytes];
    std::vector<unsigned char>& tails;
    ~Scrubber() {
      OPENSSL_cleanse(roundKeys, sizeof(roundKeys));
      // The plain tails may be key material.
      if (!tails.empty()) OPENSSL_cleanse(tails.data(), tails.size());
    }
  } scrubber{{}, tails};
  for (int i = 0; i < count; ++i) {
    const CDataJob& job = jobs[i];
    const int wholeBytes = job.sourceSize / kBlockBytes * kBlockBytes;
    const int tailBytes = job.sourceSize - wholeBytes;
    const size_t offset = job.append ? job.target->getUsed() : 0;
    job.target->setUsed(offset + wholeBytes + (tailBytes ? kBlockBytes : 0));
    lanes::CChain& chain = chains[static_cast<size_t>(i)];
    chain.source = static_cast<const unsigned char*>(job.source);
    chain.target = job.target->getData() + offset;
    chain.blocks = static_cast<size_t>(wholeBytes / kBlockBytes);
    chain.iv = static_cast<const unsigned char*>(job.iv);
    chain.tail = nullptr;
    if (tailBytes) {
      unsigned char* tail = tails.data() + static_cast<size_t>(i) * kBlockBytes;
      std::memset(tail, 0, kBlockBytes);
      std::memcpy(tail, chain.source + wholeBytes, static_cast<size_t>(tailBytes));
      chain.tail = tail;
    }
  }
  lanes::expandKey(key.getData(), scrubber.roundKeys);
  lanes::encryptChains(scrubber.roundKeys, chains.data(), chains.size());
}

void CCipher_AES256CBC::transform(const char* context, bool encrypting,
                                  const kx::TCryptBuffer<unsigned char>& key, const void* source,
                                  int sourceSize, kx::TBuffer<unsigned char>& target, bool append,
                                  const void* iv) {
  checkArguments(context, encrypting, key, source, sourceSize, iv);

  const int wholeBytes = sourceSize / kBlockBytes * kBlockBytes;
  const int tailBytes = sourceSize - wholeBytes;
  const int outBytes = wholeBytes + (tailBytes ? kBlockBytes : 0);
  const size_t offset = append ? target.getUsed() : 0;
  target.setUsed(offset + outBytes);
  if (outBytes == 0) return;

  unsigned char* out = target.getData() + offset;
  // The context must not hold this key's schedule once the call is over.
  // Re-keying with zeros overwrites it in place; a reset would free the
  // engine's state and make the next call allocate it again.
  struct KeyScrubber {
    evp_cipher_ctx_st* ctx;
    ~KeyScrubber() {
      static const unsigned char kZeroKey[kKeyBytes] = {};
      EVP_CipherInit_ex2(ctx, nullptr, kZeroKey, nullptr, -1, nullptr);
    }
  } scrubber{ctx_};
  if (EVP_CipherInit_ex2(ctx_, nullptr, key.getData(), static_cast<const unsigned char*>(iv),
                         encrypting ? 1 : 0, nullptr) != 1) {
    throwOpenSSLError(context, "EVP_CipherInit_ex2");
  }
  int produced = 0;
  if (wholeBytes > 0) {
    if (EVP_CipherUpdate(ctx_, out, &produced, static_cast<const unsigned char*>(source), wholeBytes) != 1) {
      throwOpenSSLError(context, "EVP_CipherUpdate");
    }
  }
  if (tailBytes > 0) {
    // The zero fill is part of the ciphertext's meaning, so it is encrypted
    // rather than left to padding; the plain tail may be key material.
    unsigned char lastBlock[kBlockBytes] = {};
    std::memcpy(lastBlock, static_cast<const unsigned char*>(source) + wholeBytes, tailBytes);
    int lastProduced = 0;
    const int ok = EVP_CipherUpdate(ctx_, out + wholeBytes, &lastProduced, lastBlock, kBlockBytes);
    OPENSSL_cleanse(lastBlock, sizeof(lastBlock));
    if (ok != 1) throwOpenSSLError(context, "EVP_CipherUpdate");
    produced += lastProduced;
  }
  if (produced != outBytes) {
    throw kx::CError(kx::String("Internal error: ") + context + " produced an unexpected size", "", -1,
                     kx::CProps().add("expected", outBytes).add("produced", produced));
  }
}

}  // namespace brix
