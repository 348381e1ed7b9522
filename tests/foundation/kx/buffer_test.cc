#include "kx/buffer.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Buffer = kx::TBuffer<unsigned char>;

TEST(BufferTest, GrowsZeroFilledKeepsContentAndCopiesDeeply) {
  Buffer a(3);
  std::memcpy(a.getData(), "abc", 3);
  a.setUsed(10000);
  EXPECT_EQ(std::memcmp(a.getData(), "abc", 3), 0);
  for (size_t i = 3; i < a.getUsed(); ++i) ASSERT_EQ(a.getData()[i], 0) << i;
  a.setUsed(2);
  a.setUsed(3);
  EXPECT_EQ(a.getData()[2], 'c');  // shrink and regrow keeps the bytes
  a.append(reinterpret_cast<const unsigned char*>("de"), 2);
  EXPECT_EQ(a.getData()[4], 'e');

  Buffer b = a;
  EXPECT_TRUE(a == b);
  b.getData()[4] ^= 1;
  EXPECT_TRUE(a != b);
  b.assign(b.getData() + 1, 3);  // overlapping source
  EXPECT_EQ(std::memcmp(b.getData(), "bcd", 3), 0);
  EXPECT_TRUE(Buffer() == Buffer(0));
  Buffer moved = std::move(a);
  EXPECT_EQ(moved.getUsed(), 5u);
  EXPECT_EQ(a.getData(), nullptr);
}

TEST(BufferSliceTest, KeepsTheBufferAlive) {
  kx::TConstBufferSlice<unsigned char> slice;
  EXPECT_EQ(slice.getData(), nullptr);
  {
    auto buffer = kx::create<Buffer>(8);
    std::memcpy(buffer->getData(), "01234567", 8);
    slice = kx::TConstBufferSlice<unsigned char>(buffer, 2, 3);
  }
  ASSERT_EQ(slice.getLength(), 3u);
  EXPECT_EQ(std::memcmp(slice.getData(), "234", 3), 0);
  EXPECT_EQ(slice.getBuffer()->getRefCount(), 1);
}

}  // namespace
