#include "brix/digest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "kx/error.h"
#include "kx/parse.h"

namespace {

std::string sha256Hex(const std::string& message, size_t pieceBytes) {
  kx::P<brix::IDigest> digest = kx::create<brix::CDigestType_SHA256>()->createDigest();
  for (size_t at = 0; at < message.size(); at += pieceBytes) {
    digest->update(message.data() + at, int(std::min(pieceBytes, message.size() - at)));
  }
  digest->finish();
  EXPECT_EQ(digest->getLength(), 32);
  return kx::hexEncode(digest->getData(), size_t(digest->getLength())).toUTF8();
}

// FIPS 180-2 examples, fed whole and in odd pieces.
TEST(DigestTest, SHA256KnownAnswers) {
  const std::pair<std::string, const char*> cases[] = {
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
  };
  for (const auto& [message, hex] : cases) {
    EXPECT_EQ(sha256Hex(message, 1000), hex) << message;
    EXPECT_EQ(sha256Hex(message, 7), hex) << message;
  }
}

// Two digests of one type run side by side; data is refused after finish and
// the result before it.
TEST(DigestTest, DigestsAreIndependentAndGuardTheirOrder) {
  kx::P<brix::IDigestType> type = kx::create<brix::CDigestType_SHA256>();
  kx::P<brix::IDigest> a = type->createDigest();
  kx::P<brix::IDigest> b = type->createDigest();
  a->update("ab", 2);
  b->update(nullptr, 0);
  EXPECT_THROW(a->getData(), kx::CError);
  EXPECT_THROW(a->update("x", -1), kx::CInvalidArgError);
  a->update("c", 1);
  a->finish();
  b->finish();
  EXPECT_EQ(kx::hexEncode(a->getData(), 32),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(kx::hexEncode(b->getData(), 32),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_THROW(a->finish(), kx::CError);
  EXPECT_THROW(a->update("x", 1), kx::CError);
}

}  // namespace
