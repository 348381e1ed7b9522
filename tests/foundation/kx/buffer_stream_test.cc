// What the buffer stream adds to the stream contract (file_system_test.cc),
// and the data streams that read and write little-endian values.
#include "kx/buffer_stream.h"

#include <gtest/gtest.h>

#include <string>

#include "kx/data_stream.h"
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

TEST(DataStreamTest, WritesGoldenBytesAndAShortReadConsumesNothing) {
  auto stream = kx::create<kx::CBufferStream>();
  kx::CDataOutStream out(*stream);
  out.writeUInt8(0x81);
  out.writeInt64(-2);
  out.writeUInt16(0x0302);
  const auto& buffer = stream->getBuffer();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->getData()), buffer->getUsed()),
            "\x81\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x02\x03");
  stream->seek(1);
  kx::CDataInStream in(*stream);
  EXPECT_EQ(in.readInt64(), -2);
  EXPECT_EQ(test::ioErrorCode([&] { in.readUInt32(); }), kx::IOERR_READ_PAST_END);
  EXPECT_EQ(stream->getPosition(), 9);
  EXPECT_EQ(in.readUInt16(), 0x0302u);
}

}  // namespace
