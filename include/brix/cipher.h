// brix: the block cipher behind encrypted grains and the wrapped disk key.
//
// A cipher object is reference counted (kx::CBase, starts with one reference)
// and serves one thread at a time: it keeps one engine context that every call
// reuses, and no key schedule outlives the call that made it. Separate objects
// share nothing.
#pragma once

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/string.h"

// OpenSSL's types, declared here so that this header doesn't need OpenSSL's.
struct evp_cipher_st;
struct evp_cipher_ctx_st;

namespace brix {

// One input of ICipher::encryptDataMany, with the arguments of encryptData.
struct CDataJob {
  const void* source = nullptr;
  int sourceSize = 0;
  kx::TBuffer<unsigned char>* target = nullptr;
  bool append = false;
  const void* iv = nullptr;
};

// A block cipher in a chaining mode without padding.
//
// Size rule of the four transforming operations: the output has the input's
// size rounded up to whole blocks, with no extra block; a last partial block is
// filled with zeros before it is encrypted, and the caller keeps the true size.
// Decryption takes whole blocks and returns as many bytes.
//
// Arguments shared by encrypt, decrypt, encryptData and decryptData:
// - `key`: exactly getKeyLength() bytes.
// - `source`, `sourceSize`: the input; `source` must not point into `target`,
//   whose memory may move when it grows. May be null when `sourceSize` is 0.
// - `target`: with `append` true the output follows its getUsed() bytes, which
//   stay as they are; with `append` false the output replaces the content.
//   Either way getUsed() ends at the end of the output. Give a
//   kx::TCryptBuffer when the output is secret.
// - `iv`: getBlockLength() bytes. Every call starts from its own `iv` and keeps
//   no chaining state for the next one.
// Failures: a wrong key size, a negative or (for decryption) partial-block
// size, or a null `iv` raise kx::CInvalidArgError; a failure of the engine
// raises kx::CError with the engine's own text. On failure `target` holds
// meaningless bytes behind its former used size.
class ICipher : public virtual kx::IBase {
 public:
  // The identifier that names the algorithm in stored data, e.g. "aes256cbc".
  virtual kx::String getID() const = 0;
  // The key size in bytes.
  virtual int getKeyLength() const = 0;
  // The block size in bytes; also the size of an initialisation vector.
  virtual int getBlockLength() const = 0;

  // For key material. Same transform as encryptData/decryptData.
  virtual void encrypt(const kx::TCryptBuffer<unsigned char>& key, const void* source, int sourceSize,
                       kx::TBuffer<unsigned char>& target, bool append, const void* iv) = 0;
  virtual void decrypt(const kx::TCryptBuffer<unsigned char>& key, const void* source, int sourceSize,
                       kx::TBuffer<unsigned char>& target, bool append, const void* iv) = 0;

  // For bulk data (grains).
  virtual void encryptData(const kx::TCryptBuffer<unsigned char>& key, const void* source, int sourceSize,
                           kx::TBuffer<unsigned char>& target, bool append, const void* iv) = 0;
  virtual void decryptData(const kx::TCryptBuffer<unsigned char>& key, const void* source, int sourceSize,
                           kx::TBuffer<unsigned char>& target, bool append, const void* iv) = 0;

  // encryptData of `count` jobs under one key, each with its own target and
  // vector. The result is the same as one call per job; a cipher whose chains
  // are serial may run the jobs side by side. Every job is checked before any
  // is encrypted. The jobs' targets must be distinct buffers. This default
  // makes one encryptData call per job.
  virtual void encryptDataMany(const kx::TCryptBuffer<unsigned char>& key, const CDataJob* jobs, int count);
};

// AES with a 256-bit key in CBC mode, no padding. ID "aes256cbc", 32-byte key,
// 16-byte block. The constructor raises kx::CError when the engine doesn't
// offer the algorithm.
class CCipher_AES256CBC final : public kx::CBase, public ICipher {
 public:
  CCipher_AES256CBC();
  ~CCipher_AES256CBC() override;
  CCipher_AES256CBC(const CCipher_AES256CBC&) = delete;
  CCipher_AES256CBC& operator=(const CCipher_AES256CBC&) = delete;

  kx::String getID() const override;
  int getKeyLength() const override;
  int getBlockLength() const override;

  void encrypt(const kx::TCryptBuffer<unsigned char>& key, const void* source, int sourceSize,
               kx::TBuffer<unsigned char>& target, bool append, const void* iv) override;
  void decrypt(const kx::TCryptBuffer<unsigned char>& key, const void* source, int sourceSize,
               kx::TBuffer<unsigned char>& target, bool append, const void* iv) override;
  void encryptData(const kx::TCryptBuffer<unsigned char>& key, const void* source, int sourceSize,
                   kx::TBuffer<unsigned char>& target, bool append, const void* iv) override;
  void decryptData(const kx::TCryptBuffer<unsigned char>& key, const void* source, int sourceSize,
                   kx::TBuffer<unsigned char>& target, bool append, const void* iv) override;
  // With the processor's AES instructions, up to eight jobs run interleaved
  // on this thread (several times one chain's speed); otherwise one by one.
  void encryptDataMany(const kx::TCryptBuffer<unsigned char>& key, const CDataJob* jobs, int count) override;

 private:
  // Checks the arguments shared by every transform; throws as the class says.
  void checkArguments(const char* context, bool encrypting, const kx::TCryptBuffer<unsigned char>& key,
                      const void* source, int sourceSize, const void* iv) const;
  void transform(const char* context, bool encrypting, const kx::TCryptBuffer<unsigned char>& key,
                 const void* source, int sourceSize, kx::TBuffer<unsigned char>& target, bool append,
                 const void* iv);

  evp_cipher_st* cipher_ = nullptr;   // fetched once
  evp_cipher_ctx_st* ctx_ = nullptr;  // set up once, re-keyed by every call
};

}  // namespace brix
