// Key bytes must never reach freed memory: every block is scanned for a known
// key as it goes back to the allocator.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "brix/cipher.h"
#include "brix/key_derivation.h"
#include "kx/buffer.h"
#include "kx/parse.h"
#include "support/alloc_shim.h"

namespace {

using Buffer = kx::TBuffer<unsigned char>;
using CryptBuffer = kx::TCryptBuffer<unsigned char>;

// Printable, so that it can be a password too.
constexpr char kSecret[] = "k3y-Material/That.Must:Vanish!7Q";
static_assert(sizeof(kSecret) == 33);

int g_sightings = 0;

void scanFreedBlock(const unsigned char* block, size_t size) {
  if (memmem(block, size, kSecret, 32)) ++g_sightings;
}

int countSightings(const std::function<void()>& work) {
  g_sightings = 0;
  test::setFreeObserver(scanFreedBlock);
  work();
  test::setFreeObserver(nullptr);
  return g_sightings;
}

CryptBuffer makeKey() {
  CryptBuffer key;
  key.assign(reinterpret_cast<const unsigned char*>(kSecret), 32);
  return key;
}

TEST(KeyWipeTest, NoKeyBytesInFreedMemory) {
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"copy to a plain buffer",
       [] {
         const CryptBuffer key = makeKey();
         Buffer copy(key), assigned(2);
         assigned = key;
       }},
      {"move-assignment through TBuffer&",
       [] {
         CryptBuffer key = makeKey();
         Buffer plain(2);
         plain = std::move(static_cast<Buffer&>(key));
       }},
      {"swap through base references",
       [] {
         CryptBuffer key = makeKey();
         Buffer plain(2);
         std::swap(static_cast<Buffer&>(key), plain);
       }},
      {"growth", [] { makeKey().setUsed(4096); }},
      {"hexDecode", [] { CryptBuffer key; kx::hexDecode(kx::hexEncode(kSecret, 32), key); }},
      {"PBKDF2 with a password",
       [] {
         CryptBuffer key(32);
         brix::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(kx::String(kSecret), "salt", 4, 2, 32, key.getData());
       }},
      {"AES with the key, then released",
       [] {
         auto cipher = kx::create<brix::CCipher_AES256CBC>();
         const unsigned char iv[16] = {};
         Buffer sealed, data;
         CryptBuffer opened;
         cipher->encrypt(makeKey(), kSecret, 32, sealed, false, iv);
         cipher->decrypt(makeKey(), sealed.getData(), 32, opened, false, iv);
         cipher->encryptData(makeKey(), iv, 16, data, false, iv);
         cipher->decryptData(makeKey(), data.getData(), 16, sealed, true, iv);
       }},
  };
  for (const auto& [name, work] : cases) EXPECT_EQ(countSightings(work), 0) << name;
  // The scan itself works: a plain buffer leaves the key behind.
  EXPECT_GE(countSightings([] { Buffer().assign(reinterpret_cast<const unsigned char*>(kSecret), 32); }), 1);
}

}  // namespace
