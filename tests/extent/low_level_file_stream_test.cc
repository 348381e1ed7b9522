#include "zarn/low_level_file_stream.h"

#include <gtest/gtest.h>

#include <cstring>

#include "kx/error.h"
#include "kx/memory_file_system.h"

namespace {

TEST(LowLevelFileStreamTest, MissingFileReadOnlyRaisesTheFileSystemsError) {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  const kx::CURI uri(kx::String("file:///none.vmdk"));
  try {
    zarn::openVMDKFileStream(fs.get(), uri, kx::IIOStream::ACCESS_READ);
    FAIL() << "opened a missing file";
  } catch (const kx::CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), kx::FSPROB_NOT_FOUND);
  }
  EXPECT_FALSE(fs->fileExists(uri));
}

TEST(LowLevelFileStreamTest, ReadWriteMakesTheFileAndKeepsItsURI) {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  const kx::CURI uri(kx::String("file:///vms/new.vmdk"));
  {
    auto stream = zarn::openVMDKFileStream(fs.get(), uri, kx::IIOStream::ACCESS_READ_WRITE);
    EXPECT_EQ(stream->getURI(), uri);
    const char text[] = "KDMV";
    stream->write(text, 4, nullptr);
    // Position and contents are those of the written bytes before any flush.
    EXPECT_EQ(stream->getPosition(), 4);
    stream->seek(0);
    char back[4] = {};
    stream->read(back, 4);
    EXPECT_EQ(std::memcmp(back, text, 4), 0);
  }
  // Letting go of the last reference brings the bytes into the file.
  int flags = 0;
  EXPECT_EQ(fs->openFile(uri, kx::IIOStream::ACCESS_READ, flags)->getLength(), 4);
}

}  // namespace
