#include "kx/buffer.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Buffer = kx::TBuffer<unsigned char>;

TEST(BufferTest, NewMemoryIsZeroAndGrowthKeepsContent) {
  Buffer b(3);
  EXPECT_EQ(b.getData()[2], 0);
  std::memcpy(b.getData(), "abc", 3);
  b.setUsed(10000);
  EXPECT_EQ(std::memcmp(b.getData(), "abc", 3), 0);
  for (size_t i = 3; i < b.getUsed(); ++i) ASSERT_EQ(b.getData()[i], 0) << i;
  b.ensureAllocated(20000);
  EXPECT_EQ(b.getUsed(), 10000u);
  EXPECT_EQ(std::memcmp(b.getData(), "abc", 3), 0);
  b.setUsed(2);
  b.setUsed(3);
  EXPECT_EQ(b.getData()[2], 'c');  // shrink and regrow keeps the bytes
}

TEST(BufferTest, AppendAssignCompareCopyAndMove) {
  Buffer a;
  for (int i = 0; i < 1000; ++i) {
    unsigned char c = static_cast<unsigned char>(i);
    a.append(&c, 1);
  }
  ASSERT_EQ(a.getUsed(), 1000u);
  EXPECT_EQ(a.getData()[999], static_cast<unsigned char>(999));
  Buffer b = a;
  EXPECT_TRUE(a == b);
  b.getData()[500] ^= 1;
  EXPECT_TRUE(a != b);
  b.assign(b.getData() + 10, 5);  // overlapping source
  EXPECT_EQ(b.getUsed(), 5u);
  EXPECT_EQ(b.getData()[0], 10);
  EXPECT_TRUE(Buffer() == Buffer(0));

  Buffer moved = std::move(a);
  EXPECT_EQ(moved.getUsed(), 1000u);
  EXPECT_EQ(a.getUsed(), 0u);
  EXPECT_EQ(a.getData(), nullptr);
}

TEST(CryptBufferTest, CopiesDeeplyKeepsContentAndWipes) {
  kx::TCryptBuffer<unsigned char> key(32);
  for (int i = 0; i < 32; ++i) key.getData()[i] = static_cast<unsigned char>(i);
  kx::TCryptBuffer<unsigned char> copy = key;
  EXPECT_TRUE(copy == key);
  EXPECT_NE(copy.getData(), key.getData());
  key.setUsed(4096);  // reallocation wipes the old block
  EXPECT_EQ(key.getData()[31], 31);
  kx::TCryptBuffer<unsigned char> moved = std::move(copy);
  EXPECT_EQ(moved.getUsed(), 32u);

  unsigned char secret[24], pattern[24];
  std::memset(secret, 0xA5, sizeof secret);
  std::memcpy(pattern, secret, sizeof secret);
  kx::secureWipe(secret, sizeof secret);
  EXPECT_NE(std::memcmp(secret, pattern, sizeof secret), 0);
}

TEST(BufferSliceTest, KeepsTheBufferAlive) {
  kx::TConstBufferSlice<unsigned char> slice;
  EXPECT_EQ(slice.getData(), nullptr);
  {
    auto buffer = kx::create<Buffer>(8);
    std::memcpy(buffer->getData(), "01234567", 8);
    slice = kx::TConstBufferSlice<unsigned char>(buffer, 2, 3);
    EXPECT_EQ(buffer->getRefCount(), 2);
  }
  ASSERT_EQ(slice.getLength(), 3u);
  EXPECT_EQ(std::memcmp(slice.getData(), "234", 3), 0);
  EXPECT_EQ(slice.getBuffer()->getRefCount(), 1);
}

}  // namespace
