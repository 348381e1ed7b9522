#include "brix/digest.h"

#include <openssl/evp.h>

#include "foundation/brix/openssl_error.h"
#include "kx/error.h"

namespace brix {
namespace {

class CDigest final : public kx::CBase, public IDigest {
 public:
  explicit CDigest(EVP_MD* md) : ctx_(EVP_MD_CTX_new()) {
    if (!ctx_ || EVP_DigestInit_ex2(ctx_, md, nullptr) != 1) {
      EVP_MD_CTX_free(ctx_);
      throwOpenSSLError("CDigestType_SHA256::createDigest", "EVP_DigestInit_ex2");
    }
    length_ = EVP_MD_get_size(md);
  }
  ~CDigest() override {
    EVP_MD_CTX_free(ctx_);
    OPENSSL_cleanse(value_, sizeof(value_));
  }
  CDigest(const CDigest&) = delete;
  CDigest& operator=(const CDigest&) = delete;

  void update(const void* data, int size) override {
    if (finished_) throw kx::CError("Internal error: IDigest::update after finish");
    if (size < 0)
      throw kx::CInvalidArgError("IDigest::update", "Negative size", kx::CProps().add("size", size));
    if (size == 0) return;
    if (EVP_DigestUpdate(ctx_, data, static_cast<size_t>(size)) != 1) {
      throwOpenSSLError("IDigest::update", "EVP_DigestUpdate");
    }
  }

  void finish() override {
    if (finished_) throw kx::CError("Internal error: IDigest::finish called twice");
    unsigned int written = 0;
    if (EVP_DigestFinal_ex(ctx_, value_, &written) != 1)
      throwOpenSSLError("IDigest::finish", "EVP_DigestFinal_ex");
    finished_ = true;
  }

  int getLength() const override { return length_; }

  const unsigned char* getData() const override {
    if (!finished_) throw kx::CError("Internal error: IDigest::getData before finish");
    return value_;
  }

 private:
  EVP_MD_CTX* ctx_;
  int length_ = 0;
  bool finished_ = false;
  unsigned char value_[EVP_MAX_MD_SIZE] = {};
};

}  // namespace

CDigestType_SHA256::CDigestType_SHA256() {
  md_ = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  if (!md_) throwOpenSSLError("CDigestType_SHA256::CDigestType_SHA256", "EVP_MD_fetch");
}

CDigestType_SHA256::~CDigestType_SHA256() { EVP_MD_free(md_); }

kx::P<IDigest> CDigestType_SHA256::createDigest() { return kx::create<CDigest>(md_); }

}  // namespace brix
