// What the buffer stream adds to the stream contract (file_system_test.cc),
// and the data streams that read and write little-endian values.
#include "kx/buffer_stream.h"

#include <gtest/gtest.h>

#include <string>

#include "kx/error.h"
#include "tests/support/caught_error.h"

namespace {

TEST(BufferStreamTest, SharesItsBufferGrowsByTheFactorAndLocksNothing) {
  for (const auto& [growth, allocatedAfterSecondByte] : {std::pair{1.0, 2u}, {2.0, 2u}, {3.0, 3u}}) {
    SCOPED_TRACE(growth);
    auto buffer = kx::create<kx::TBuffer<unsigned char>>();
    kx::CBufferStream stream(buffer, growth);
    stream.write("a", 1, nullptr);
    stream.write("b", 1, nullptr);
    EXPECT_EQ(buffer->getAllocated(), allocatedAfterSecondByte);
    for (int i = 0; i < 1000; ++i) stream.write("c", 1, nullptr);
    EXPECT_EQ(buffer->getUsed(), 1002u);
    EXPECT_LE(buffer->getAllocated(), 1002u * static_cast<size_t>(growth));
  }
  EXPECT_THROW(kx::CBufferStream(kx::create<kx::TBuffer<unsigned char>>(), 0.5), kx::CInvalidArgError);
  kx::CBufferStream stream;
  EXPECT_TRUE(stream.getURI().isEmpty());
  EXPECT_EQ(test::caught([&] { stream.lockRange(0, 1, kx::IStreamBase::LOCK_SHARED); },
                         kx::CFileSystemError(-1, kx::CError("")))
                .getProblem(),
            kx::FSPROB_NOT_SUPPORTED);
}

}  // namespace
