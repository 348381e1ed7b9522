#include "zarn/disk_io_stream.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "kx/memory_file_system.h"
#include "tests/support/caught_error.h"

namespace {

TEST(DiskIOStreamTest, EveryOperationOpenAndClosed) {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  const kx::CURI uri(kx::String("file:///s.vmdk"));
  zarn::CVMDKDisk::create(fs.get(), uri, 1, "", false, -1, -1, "", 0xFFFFFFFF, false);
  auto stream = kx::create<zarn::CVMDKDiskIOStream>(fs.get(), uri, kx::IIOStream::ACCESS_READ_WRITE, "");
  const int64_t size = 8 << 20;
  std::vector<unsigned char> buffer(16), data(16, 7);
  kx::TConstBufferSlice<unsigned char> slice(kx::create<kx::TBuffer<unsigned char>>(4), 0, 4);
  // Each operation with the CIOError code it gives on an open stream (0: none).
  const struct {
    const char* name;
    std::function<void()> op;
    int openCode;
  } cases[] = {
      {"getLength", [&] { EXPECT_EQ(stream->getLength(), size); }, 0},
      {"seek", [&] { stream->seek(size - 10); }, 0},
      {"getPosition", [&] { EXPECT_EQ(stream->getPosition(), size - 10); }, 0},
      {"read past the end", [&] { stream->read(buffer.data(), 16); }, 4},
      {"readLax", [&] { EXPECT_EQ(stream->readLax(buffer.data(), 16), 10); }, 0},
      {"isEndOfStream", [&] { EXPECT_TRUE(stream->isEndOfStream()); }, 0},
      {"isEndOfStream_NonBlocking", [&] { EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 1); }, 0},
      {"readAvailable at the end", [&] { EXPECT_EQ(stream->readAvailable(buffer.data(), 16), 0); }, 0},
      {"waitReadable", [&] { EXPECT_TRUE(stream->waitReadable(5)); }, 0},
      {"write", [&] { stream->seek(0); stream->write(data.data(), 16, nullptr); }, 0},
      {"writeKeepBuffer", [&] { stream->writeKeepBuffer(slice, nullptr); }, 0},
      {"createWriteBarrier", [&] { EXPECT_TRUE(stream->createWriteBarrier(nullptr)); }, 0},
      {"flush", [&] { stream->flush(); }, 0},
      {"setLength", [&] { stream->setLength(1); }, 13},
  };
  for (const auto& c : cases) EXPECT_EQ(test::ioErrorCode(c.op), c.openCode) << c.name;
  EXPECT_THROW(stream->lockRange(0, 1, kx::IStreamBase::LOCK_SHARED), kx::CFileSystemError);

  auto disk = stream->getDisk();
  stream->close();
  stream->close();
  for (const auto& c : cases) EXPECT_EQ(test::ioErrorCode(c.op), 10) << c.name;
  EXPECT_EQ(stream->getURI().toString(), "file:///s.vmdk");
  EXPECT_THROW(stream->lockRange(0, 1, kx::IStreamBase::LOCK_SHARED), kx::CFileSystemError);
  std::vector<unsigned char> back(16);
  disk->seek(0);
  disk->read(back.data(), 16);  // the caller's reference keeps the disk usable
  EXPECT_EQ(back, data);
}

}  // namespace
