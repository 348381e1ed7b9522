// brix: deriving keys from passwords.
#pragma once

#include "kx/string.h"

namespace brix {

// PBKDF2 (PKCS #5 v2.0) with HMAC-SHA-1. Writes `keySize` bytes to `keyOut`,
// which the caller owns and should wipe (a kx::TCryptBuffer). `password` is
// the UTF-8 form of the password without a terminator; `password` and `salt`
// may be null when their size is 0. Negative sizes, `iterations` below 1 or
// `keySize` below 1 raise kx::CInvalidArgError; an engine failure kx::CError.
// Thread-safe.
void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordSize, const void* salt, int saltSize,
                                      int iterations, int keySize, void* keyOut);

// The same for a password given as text. Its UTF-8 form is made in memory
// that is wiped before it is freed, so no copy of the password is left behind.
void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const kx::String& password, const void* salt, int saltSize,
                                      int iterations, int keySize, void* keyOut);

}  // namespace brix
