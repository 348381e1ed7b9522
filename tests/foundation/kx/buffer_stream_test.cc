// Streams over memory: the buffer stream, and the data streams that read and
// write little-endian values on any stream.
#include "kx/buffer_stream.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kx/data_stream.h"
#include "kx/error.h"
#include "tests/support/caught_error.h"

namespace {

std::string contentOf(const kx::TBuffer<unsigned char>& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.getData()), buffer.getUsed());
}

using test::ioErrorCode;

TEST(BufferStreamTest, WritesIntoTheSharedBuffer) {
  auto buffer = kx::create<kx::TBuffer<unsigned char>>();
  buffer->assign(reinterpret_cast<const unsigned char*>("0123456789"), 10);
  auto stream = kx::create<kx::CBufferStream>(buffer, 2.0);
  EXPECT_EQ(stream->getLength(), 10);
  stream->seek(8);
  stream->write("abcd", 4, nullptr);  // overwrites 2, appends 2
  stream->seek(2);
  stream->write("X", 1, nullptr);
  EXPECT_EQ(contentOf(*buffer), "01X34567abcd");
  EXPECT_EQ(stream->getPosition(), 3);

  char read[4];
  stream->read(read, 4);
  EXPECT_EQ(std::string(read, 4), "3456");
  EXPECT_EQ(stream->readLax(read, 4), 4);
  EXPECT_EQ(stream->readLax(read, 4), 1);
  EXPECT_EQ(read[0], 'd');
  EXPECT_EQ(stream->readLax(read, 4), 0);
  EXPECT_TRUE(stream->isEndOfStream());
  stream->seek(10);
  EXPECT_EQ(ioErrorCode([&] { stream->read(read, 3); }), kx::IOERR_READ_PAST_END);
  EXPECT_EQ(stream->getPosition(), 10);
  EXPECT_EQ(ioErrorCode([&] { stream->seek(13); }), kx::IOERR_BAD_SEEK_POSITION);
}

TEST(BufferStreamTest, AllocationGrowsByTheFactor) {
  struct Case {
    double growth;
    size_t allocatedAfterSecondByte;
  };
  for (const Case& c : {Case{1.0, 2}, Case{2.0, 2}, Case{3.0, 3}, Case{1.5, 2}}) {
    SCOPED_TRACE(c.growth);
    auto buffer = kx::create<kx::TBuffer<unsigned char>>();
    kx::CBufferStream stream(buffer, c.growth);
    stream.write("a", 1, nullptr);
    stream.write("b", 1, nullptr);
    EXPECT_EQ(buffer->getAllocated(), c.allocatedAfterSecondByte);
    for (int i = 0; i < 1000; ++i) stream.write("c", 1, nullptr);
    EXPECT_EQ(buffer->getUsed(), 1002u);
    if (c.growth >= 2.0) {
      EXPECT_LT(buffer->getAllocated(), 1002u * static_cast<size_t>(c.growth) + 1);
    }
  }
  EXPECT_THROW(kx::CBufferStream(kx::create<kx::TBuffer<unsigned char>>(), 0.5), kx::CInvalidArgError);
}

TEST(BufferStreamTest, SetLengthShowsZerosWhereBytesWereCut) {
  kx::CBufferStream stream;
  stream.write("abcdef", 6, nullptr);
  stream.setLength(2);
  stream.setLength(5);
  EXPECT_EQ(contentOf(*stream.getBuffer()), std::string("ab\0\0\0", 5));
  EXPECT_EQ(stream.getPosition(), 6);
  stream.write("!", 1, nullptr);  // from past the end: the gap is zero too
  EXPECT_EQ(contentOf(*stream.getBuffer()), std::string("ab\0\0\0\0!", 7));
}

TEST(BufferStreamTest, HasNoFileBehindItAndRefusesWorkOnceClosed) {
  kx::CBufferStream stream;
  EXPECT_TRUE(stream.getURI().isEmpty());
  stream.flush();
  EXPECT_TRUE(stream.createWriteBarrier(nullptr));
  try {
    stream.lockRange(0, 1, kx::IStreamBase::LOCK_SHARED);
    ADD_FAILURE() << "no error";
  } catch (const kx::CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), kx::FSPROB_NOT_SUPPORTED);
  }
  stream.write("x", 1, nullptr);
  stream.close();
  stream.close();
  EXPECT_EQ(stream.getBuffer()->getUsed(), 1u);
  char c;
  for (auto op : std::initializer_list<std::function<void()>>{
           [&] { stream.getLength(); }, [&] { stream.read(&c, 0); }, [&] { stream.write(&c, 1, nullptr); },
           [&] { stream.seek(0); }, [&] { stream.flush(); }, [&] { stream.setLength(0); }}) {
    EXPECT_EQ(ioErrorCode(op), kx::IOERR_STREAM_CLOSED);
  }
}

TEST(DataStreamTest, WritesAndReadsLittleEndianGoldenBytes) {
  auto stream = kx::create<kx::CBufferStream>();
  kx::CDataOutStream out(*stream);
  out.writeUInt8(0x81);
  out.writeUInt16(0x0302);
  out.writeUInt32(0x07060504u);
  out.writeUInt64(0x0F0E0D0C0B0A0908ull);
  out.writeInt64(-2);
  out.write("\x10\x11", 2);
  EXPECT_EQ(contentOf(*stream->getBuffer()),
            std::string("\x81\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C"
                        "\x0D\x0E\x0F\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x10\x11"));

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

// Each value is one read of the stream, so a short stream gives up the whole
// value and keeps its position.
TEST(DataStreamTest, ShortStreamRaisesAndConsumesNothing) {
  auto stream = kx::create<kx::CBufferStream>();
  stream->write("\x01\x02\x03", 3, nullptr);
  stream->seek(0);
  kx::CDataInStream in(*stream);
  EXPECT_EQ(ioErrorCode([&] { in.readUInt32(); }), kx::IOERR_READ_PAST_END);
  EXPECT_EQ(stream->getPosition(), 0);
  EXPECT_EQ(in.readUInt16(), 0x0201u);
}

}  // namespace
