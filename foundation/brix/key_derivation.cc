#include "brix/key_derivation.h"

#include <openssl/evp.h>
#include <wx/strconv.h>

#include <climits>

#include "foundation/brix/openssl_error.h"
#include "kx/buffer.h"
#include "kx/error.h"

namespace brix {

void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordSize, const void* salt, int saltSize,
                                      int iterations, int keySize, void* keyOut) {
  constexpr const char* kContext = "deriveKey_PKCS5_PBKDF2_HMAC_SHA1";
  if (passwordSize < 0 || saltSize < 0 || iterations < 1 || keySize < 1) {
    throw kx::CInvalidArgError(kContext, "Argument out of range",
                               kx::CProps()
                                   .add("passwordSize", passwordSize)
                                   .add("saltSize", saltSize)
                                   .add("iterations", iterations)
                                   .add("keySize", keySize));
  }
  if (!keyOut || (passwordSize > 0 && !password) || (saltSize > 0 && !salt)) {
    throw kx::CInvalidArgError(kContext, "Null pointer for a non-empty argument");
  }
  // Empty inputs go in as real empty strings: the engine need not accept null.
  static const unsigned char kEmpty[1] = {0};
  const char* passwordChars = static_cast<const char*>(password ? password : kEmpty);
  const unsigned char* saltBytes = salt ? static_cast<const unsigned char*>(salt) : kEmpty;
  if (PKCS5_PBKDF2_HMAC_SHA1(passwordChars, passwordSize, saltBytes, saltSize, iterations, keySize,
                             static_cast<unsigned char*>(keyOut)) != 1) {
    throwOpenSSLError(kContext, "PKCS5_PBKDF2_HMAC_SHA1");
  }
}

void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const kx::String& password, const void* salt, int saltSize,
                                      int iterations, int keySize, void* keyOut) {
  // Encoded straight from the string's own wide characters into wiping memory;
  // the string's conversions (toUTF8, utf8_str) make copies that nobody wipes.
  const wchar_t* wide = password.wc_str();
  const size_t size = wxConvUTF8.FromWChar(nullptr, 0, wide, password.length());
  if (size == wxCONV_FAILED || size > static_cast<size_t>(INT_MAX)) {
    throw kx::CInvalidArgError("deriveKey_PKCS5_PBKDF2_HMAC_SHA1", "The password has no UTF-8 form");
  }
  kx::TCryptBuffer<char> utf8(size);
  wxConvUTF8.FromWChar(utf8.getData(), size, wide, password.length());
  deriveKey_PKCS5_PBKDF2_HMAC_SHA1(utf8.getData(), static_cast<int>(size), salt, saltSize, iterations, keySize,
                                   keyOut);
}

}  // namespace brix
