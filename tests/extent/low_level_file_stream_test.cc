#include "zarn/low_level_file_stream.h"

#include <gtest/gtest.h>

#include "kx/error.h"
#include "kx/memory_file_system.h"

namespace {

// The buffering itself has its own tests; here, only what the access mode
// does to the file.
TEST(LowLevelFileStreamTest, OpensOnlyExistingFilesForReadingAndMakesNewOnesForWriting) {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  const kx::CURI uri(kx::String("file:///vms/new.vmdk"));
  try {
    zarn::openVMDKFileStream(fs.get(), uri, kx::IIOStream::ACCESS_READ);
    ADD_FAILURE() << "opened a missing file";
  } catch (const kx::CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), kx::FSPROB_NOT_FOUND);
  }
  EXPECT_FALSE(fs->fileExists(uri));
  {
    auto stream = zarn::openVMDKFileStream(fs.get(), uri, kx::IIOStream::ACCESS_READ_WRITE);
    EXPECT_EQ(stream->getURI(), uri);
    stream->write("KDMV", 4, nullptr);
  }
  // Letting go of the last reference brings the bytes into the file.
  int flags = 0;
  EXPECT_EQ(fs->openFile(uri, kx::IIOStream::ACCESS_READ, flags)->getLength(), 4);
}

}  // namespace
