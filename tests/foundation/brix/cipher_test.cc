#include "brix/cipher.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kx/error.h"
#include "kx/parse.h"

namespace {

using Bytes = kx::TBuffer<unsigned char>;
using Key = kx::TCryptBuffer<unsigned char>;
using Op = void (brix::ICipher::*)(const Key&, const void*, int, Bytes&, bool, const void*);

template <class B = Bytes>
B fromHex(const char* hex) {
  B out;
  kx::hexDecode(hex, out);
  return out;
}

// AES-256 CBC example vectors of NIST SP 800-38A, F.2.5 and F.2.6.
constexpr const char* kNistKey = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
constexpr const char* kNistIV = "000102030405060708090a0b0c0d0e0f";
constexpr const char* kNistPlain =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
constexpr const char* kNistCipher =
    "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
    "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b";

class CipherTest : public ::testing::Test {
 protected:
  kx::P<brix::ICipher> cipher_ = kx::create<brix::CCipher_AES256CBC>();
  Key key_ = fromHex<Key>(kNistKey);
  Bytes iv_ = fromHex(kNistIV);
};

TEST_F(CipherTest, KnownAnswerBothOperationPairs) {
  EXPECT_EQ(cipher_->getID(), "aes256cbc");
  const Bytes plain = fromHex(kNistPlain), expected = fromHex(kNistCipher);
  for (auto [encrypt, decrypt] : {std::pair<Op, Op>{&brix::ICipher::encrypt, &brix::ICipher::decrypt},
                                  {&brix::ICipher::encryptData, &brix::ICipher::decryptData}}) {
    SCOPED_TRACE(encrypt == &brix::ICipher::encrypt ? "encrypt/decrypt" : "encryptData/decryptData");
    Bytes encrypted;
    Key decrypted;
    (cipher_.get()->*encrypt)(key_, plain.getData(), int(plain.getUsed()), encrypted, false, iv_.getData());
    (cipher_.get()->*decrypt)(key_, expected.getData(), int(expected.getUsed()), decrypted, false,
                              iv_.getData());
    EXPECT_EQ(kx::hexEncode(encrypted), kNistCipher);
    EXPECT_EQ(kx::hexEncode(decrypted), kNistPlain);
  }
}

// The output is the input rounded up to whole blocks; a partial last block is
// encrypted as if zero-filled; append keeps what the target held.
TEST_F(CipherTest, SizeRuleAndAppend) {
  const Bytes plain = fromHex(kNistPlain);
  const Bytes header = fromHex("a1a2a3a4a5a6a7a8a9aaab");  // 11 bytes, like a grain header
  for (int size : {0, 1, 15, 16, 17, 31, 32, 33, 63, 64}) {
    for (bool append : {false, true}) {
      SCOPED_TRACE("size " + std::to_string(size) + (append ? " append" : " replace"));
      const int rounded = (size + 15) / 16 * 16;
      const size_t offset = append ? header.getUsed() : 0;
      Bytes target = header, zeroFilled(rounded), reference, back = header;
      cipher_->encryptData(key_, plain.getData(), size, target, append, iv_.getData());
      ASSERT_EQ(target.getUsed(), offset + rounded);
      EXPECT_EQ(0, std::memcmp(target.getData(), header.getData(), offset));
      if (size == 0) continue;

      std::memcpy(zeroFilled.getData(), plain.getData(), size);
      cipher_->encryptData(key_, zeroFilled.getData(), rounded, reference, false, iv_.getData());
      EXPECT_EQ(0, std::memcmp(target.getData() + offset, reference.getData(), rounded));
      cipher_->decryptData(key_, target.getData() + offset, rounded, back, append, iv_.getData());
      ASSERT_EQ(back.getUsed(), offset + rounded);
      EXPECT_EQ(0, std::memcmp(back.getData() + offset, zeroFilled.getData(), rounded));
    }
  }
}

TEST_F(CipherTest, RejectsBadArguments) {
  const Bytes data(48);
  const Key shortKey = fromHex<Key>("00112233");
  auto refuse = [&](Op op, const Key& key, int size, const void* iv) {
    Bytes target;
    EXPECT_THROW((cipher_.get()->*op)(key, data.getData(), size, target, false, iv), kx::CInvalidArgError)
        << "size " << size << (iv ? "" : ", no iv");
  };
  refuse(&brix::ICipher::encrypt, shortKey, 16, iv_.getData());
  refuse(&brix::ICipher::decryptData, shortKey, 16, iv_.getData());
  refuse(&brix::ICipher::decrypt, key_, 17, iv_.getData());
  refuse(&brix::ICipher::decryptData, key_, 40, iv_.getData());
  refuse(&brix::ICipher::encryptData, key_, -1, iv_.getData());
  refuse(&brix::ICipher::encryptData, key_, 16, nullptr);
}

// One object serves calls with changing keys, vectors and directions; each
// call must match what a fresh object computes.
TEST_F(CipherTest, ReusedContextMatchesFreshObjects) {
  Bytes plain(100), reused, fresh, back;
  for (unsigned char round = 0; round < 4; ++round) {
    Key key(32);
    unsigned char iv[16] = {round};
    key.getData()[round] = round + 1;
    plain.getData()[round] = round;
    cipher_->encryptData(key, plain.getData(), 100, reused, false, iv);
    kx::create<brix::CCipher_AES256CBC>()->encryptData(key, plain.getData(), 100, fresh, false, iv);
    ASSERT_EQ(reused, fresh) << "round " << int(round);
    cipher_->decryptData(key, reused.getData(), int(reused.getUsed()), back, false, iv);
    back.setUsed(plain.getUsed());
    ASSERT_EQ(back, plain) << "round " << int(round);
  }
}

// Many chains side by side must give each job exactly what one encryptData
// call gives it: chains of mixed lengths (so lanes end at different blocks and
// waiting jobs take their place), partial last blocks, append, more jobs than
// run at once, and a key whose schedule differs from the NIST one.
TEST_F(CipherTest, EncryptDataManyMatchesOneCallPerJob) {
  const int sizes[] = {65536, 16, 0, 1, 4096, 17, 65536, 15, 33, 65531, 512, 48, 65536, 64, 100, 65536, 32, 1000};
  constexpr int kJobs = sizeof(sizes) / sizeof(sizes[0]);
  Bytes plain(65536 + 32);  // each job starts at its own offset
  for (size_t i = 0; i < plain.getUsed(); ++i) plain.getData()[i] = static_cast<unsigned char>(i * 131 + (i >> 9));
  Key otherKey(32);
  for (int i = 0; i < 32; ++i) otherKey.getData()[i] = static_cast<unsigned char>(0xF0 - 7 * i);
  for (const Key* key : {&key_, &otherKey}) {
    std::vector<Bytes> many(kJobs), single(kJobs);
    std::vector<unsigned char> ivs(kJobs * 16);
    std::vector<brix::CDataJob> jobs(kJobs);
    for (int j = 0; j < kJobs; ++j) {
      for (int b = 0; b < 16; ++b) ivs[j * 16 + b] = static_cast<unsigned char>(j * 16 + b);
      const bool append = j % 3 == 1;
      many[j] = single[j] = fromHex("0102030405060708090a0b0c");
      jobs[j] = {plain.getData() + j, sizes[j] - (sizes[j] == 65536 ? j : 0), &many[j], append, &ivs[j * 16]};
      cipher_->encryptData(*key, jobs[j].source, jobs[j].sourceSize, single[j], append, jobs[j].iv);
    }
    cipher_->encryptDataMany(*key, jobs.data(), kJobs);
    for (int j = 0; j < kJobs; ++j) EXPECT_EQ(kx::hexEncode(many[j]), kx::hexEncode(single[j])) << "job " << j;
  }
}

TEST_F(CipherTest, EncryptDataManyChecksEveryJobFirst) {
  const Bytes data(64);
  Bytes first, second;
  const brix::CDataJob jobs[] = {{data.getData(), 64, &first, false, iv_.getData()},
                                 {data.getData(), 64, &second, false, nullptr}};
  EXPECT_THROW(cipher_->encryptDataMany(key_, jobs, 2), kx::CInvalidArgError);
  EXPECT_EQ(first.getUsed(), 0u);
  const Key shortKey = fromHex<Key>("00112233");
  EXPECT_THROW(cipher_->encryptDataMany(shortKey, jobs, 1), kx::CInvalidArgError);
}

}  // namespace
