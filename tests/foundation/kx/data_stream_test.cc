#include "kx/data_stream.h"

#include <gtest/gtest.h>

#include <vector>

#include "kx/buffer_stream.h"
#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "tests/support/counting_file_system.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes contentOf(kx::CBufferStream& stream) {
  const auto& buffer = stream.getBuffer();
  return Bytes(buffer->getData(), buffer->getData() + buffer->getUsed());
}

TEST(DataStreamTest, WritesLittleEndianGoldenBytes) {
  auto stream = kx::create<kx::CBufferStream>();
  kx::CDataOutStream out(*stream);
  out.writeUInt8(0x81);
  out.writeUInt16(0x0302);
  out.writeUInt32(0x07060504u);
  out.writeUInt64(0x0F0E0D0C0B0A0908ull);
  out.writeInt64(-2);
  out.write("\x10\x11", 2);
  const Bytes expected = {0x81, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D,
                          0x0E, 0x0F, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x10, 0x11};
  EXPECT_EQ(contentOf(*stream), expected);
  EXPECT_EQ(&out.getStream(), static_cast<kx::IOutStream*>(stream.get()));

  stream->seek(0);
  kx::CDataInStream in(*stream);
  EXPECT_EQ(in.readUInt8(), 0x81u);
  EXPECT_EQ(in.readUInt16(), 0x0302u);
  EXPECT_EQ(in.readUInt32(), 0x07060504u);
  EXPECT_EQ(in.readUInt64(), 0x0F0E0D0C0B0A0908ull);
  EXPECT_EQ(in.readInt64(), -2);
  unsigned char tail[2];
  in.read(tail, 2);
  EXPECT_EQ(tail[1], 0x11);
}

TEST(DataStreamTest, EachValueIsOneCallOnTheStream) {
  auto counting = kx::create<test::CCountingFileSystem>(kx::create<kx::CMemoryFileSystem>());
  const kx::CURI uri(kx::String("mem:values"));
  int flags = 0;
  kx::P<kx::IIOStream> stream = counting->openFile(uri, kx::IIOStream::ACCESS_READ_WRITE, flags);
  kx::CDataOutStream out(*stream);
  out.writeUInt8(1);
  out.writeUInt16(2);
  out.writeUInt32(3);
  out.writeUInt64(4);
  out.writeInt64(5);
  EXPECT_EQ(counting->getCount(test::FileOp::Write), 5);
  EXPECT_EQ(counting->getBytes(test::FileOp::Write), 1 + 2 + 4 + 8 + 8);

  stream->seek(0);
  kx::CDataInStream in(*stream);
  in.readUInt8();
  in.readUInt16();
  in.readUInt32();
  in.readUInt64();
  EXPECT_EQ(in.readInt64(), 5);
  EXPECT_EQ(counting->getCount(test::FileOp::Read), 5);
}

TEST(DataStreamTest, ShortStreamRaisesAndConsumesNothing) {
  auto stream = kx::create<kx::CBufferStream>();
  stream->write("\x01\x02\x03", 3, nullptr);
  stream->seek(0);
  kx::CDataInStream in(*stream);
  try {
    in.readUInt32();
    FAIL() << "no error";
  } catch (const kx::CIOError& e) {
    EXPECT_EQ(e.getCode(), kx::IOERR_READ_PAST_END);
  }
  EXPECT_EQ(stream->getPosition(), 0);
  EXPECT_EQ(in.readUInt16(), 0x0201u);
}

}  // namespace
