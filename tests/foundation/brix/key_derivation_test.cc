#include "brix/key_derivation.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kx/error.h"
#include "kx/parse.h"

namespace {

// RFC 6070 vectors (the 16777216-iteration one is left out for time).
TEST(KeyDerivationTest, PBKDF2HMACSHA1KnownAnswers) {
  using namespace std::string_literals;
  const struct {
    std::string password, salt;
    int iterations;
    const char* hex;
  } cases[] = {
      {"password", "salt", 1, "0c60c80f961f0e71f3a9b524af6012062fe037a6"},
      {"password", "salt", 2, "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957"},
      {"password", "salt", 4096, "4b007901b765489abead49d926f721d065a429c1"},
      {"passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096,
       "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038"},
      {"pass\0word"s, "sa\0lt"s, 4096, "56fa6aa75548099dcc37d7f03425e0c3"},
  };
  for (const auto& c : cases) {
    const int keySize = int(std::strlen(c.hex) / 2);
    std::vector<unsigned char> key(keySize);
    brix::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(c.password.data(), int(c.password.size()), c.salt.data(),
                                           int(c.salt.size()), c.iterations, keySize, key.data());
    EXPECT_EQ(kx::hexEncode(key.data(), key.size()), c.hex) << c.password << " / " << c.iterations;
  }
}

TEST(KeyDerivationTest, EmptyPasswordAndSaltAreValidButBadSizesAreNot) {
  unsigned char a[32], b[32];
  brix::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(nullptr, 0, nullptr, 0, 1, 32, a);
  brix::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("", 0, "", 0, 1, 32, b);
  EXPECT_EQ(0, std::memcmp(a, b, sizeof(a)));
  EXPECT_THROW(brix::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("pw", -1, "s", 1, 1, 32, a), kx::CInvalidArgError);
  EXPECT_THROW(brix::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("pw", 2, "s", 1, 0, 32, a), kx::CInvalidArgError);
  EXPECT_THROW(brix::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("pw", 2, "s", 1, 1, 0, a), kx::CInvalidArgError);
}

}  // namespace
