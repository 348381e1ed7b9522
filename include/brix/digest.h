// brix: message digests.
#pragma once

#include "kx/base.h"

// OpenSSL's type, declared here so that this header doesn't need OpenSSL's.
struct evp_md_st;

namespace brix {

// One digest computation. Use in this order: update any number of times,
// finish once, then getLength and getData. One thread at a time.
class IDigest : public virtual kx::IBase {
 public:
  // Feeds `size` bytes; `data` may be null when `size` is 0. A negative size
  // raises kx::CInvalidArgError; a call after finish() an internal kx::CError.
  virtual void update(const void* data, int size) = 0;
  // Completes the digest. A second call raises an internal kx::CError.
  virtual void finish() = 0;
  // The digest size in bytes; valid at any time.
  virtual int getLength() const = 0;
  // The getLength() digest bytes, owned by this object and valid until it is
  // released. Raises an internal kx::CError before finish().
  virtual const unsigned char* getData() const = 0;
};

// A digest algorithm: a factory of digest computations.
class IDigestType : public virtual kx::IBase {
 public:
  // A fresh computation, independent of every other one; it may outlive this
  // type object. Raises kx::CError when the engine fails.
  virtual kx::P<IDigest> createDigest() = 0;
};

// SHA-256; its digests are 32 bytes. The constructor raises kx::CError when
// the engine doesn't offer the algorithm.
class CDigestType_SHA256 final : public kx::CBase, public IDigestType {
 public:
  CDigestType_SHA256();
  ~CDigestType_SHA256() override;
  CDigestType_SHA256(const CDigestType_SHA256&) = delete;
  CDigestType_SHA256& operator=(const CDigestType_SHA256&) = delete;

  kx::P<IDigest> createDigest() override;

 private:
  evp_md_st* md_ = nullptr;  // fetched once, shared by the digests made here
};

}  // namespace brix
