// What the memory file system adds to the common contract (see
// file_system_contract_test.cc): its test helpers and its naming of files.
#include "kx/memory_file_system.h"

#include <gtest/gtest.h>

#include <string>

#include "kx/error.h"

namespace {

kx::CURI uri(const char* text) { return kx::CURI(kx::String(text)); }

std::string toText(const kx::TBuffer<unsigned char>& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.getData()), buffer.getUsed());
}

class MemoryFileSystemTest : public testing::Test {
 protected:
  kx::P<kx::IIOStream> open(const char* text,
                            kx::IIOStream::Access access = kx::IIOStream::ACCESS_READ_WRITE) {
    int flags = 0;
    return fs_->openFile(uri(text), access, flags);
  }

  kx::P<kx::CMemoryFileSystem> fs_ = kx::create<kx::CMemoryFileSystem>();
};

TEST_F(MemoryFileSystemTest, MissingFileMessageNamesTheURI) {
  try {
    open("file:///dir/missing%20file", kx::IIOStream::ACCESS_READ);
    FAIL() << "no error";
  } catch (const kx::CFileSystemError& e) {
    EXPECT_EQ(e.getProblem(), kx::FSPROB_NOT_FOUND);
    EXPECT_EQ(e.getMessage(), "File not found: file:///dir/missing file");
    EXPECT_EQ(e.getProps().get("uri"), "file:///dir/missing file");
  }
}

TEST_F(MemoryFileSystemTest, SpellingsOfOneNormalizedURIReachOneFile) {
  kx::P<kx::IIOStream> stream = open("file:///dir/a.vmdk");
  stream->write("x", 1, nullptr);
  for (const char* alias : {"FILE:///dir/a.vmdk", "file:///dir/sub/../a.vmdk", "file:///dir/%61.vmdk"}) {
    SCOPED_TRACE(alias);
    EXPECT_TRUE(fs_->fileExists(uri(alias)));
    EXPECT_EQ(open(alias, kx::IIOStream::ACCESS_READ)->getLength(), 1);
  }
  EXPECT_FALSE(fs_->fileExists(uri("file:///dir/A.vmdk")));
}

TEST_F(MemoryFileSystemTest, NamesThatAreNoFilesAreRefused) {
  for (const char* text : {"", "file:///dir/", "file:///"}) {
    SCOPED_TRACE(text);
    try {
      open(text);
      ADD_FAILURE() << "no error";
    } catch (const kx::CFileSystemError& e) {
      EXPECT_EQ(e.getProblem(), kx::FSPROB_BAD_NAME);
    }
  }
}

TEST_F(MemoryFileSystemTest, HelpersSetGetAndListFiles) {
  fs_->setFileData(uri("mem:b"), "bee", 3);
  fs_->setFileData(uri("mem:a"), "a", 1);
  open("mem:c");
  const auto files = fs_->listFiles();
  ASSERT_EQ(files.size(), 3u);
  EXPECT_EQ(files[0], uri("mem:a"));
  EXPECT_EQ(files[2], uri("mem:c"));
  EXPECT_EQ(toText(fs_->getFileData(uri("mem:b"))), "bee");
  EXPECT_EQ(fs_->getFileData(uri("mem:c")).getUsed(), 0u);
  EXPECT_THROW(fs_->getFileData(uri("mem:missing")), kx::CFileSystemError);
}

TEST_F(MemoryFileSystemTest, SetFileDataReplacesBytesUnderOpenStreams) {
  kx::P<kx::IIOStream> stream = open("mem:f");
  stream->write("long content", 12, nullptr);
  fs_->setFileData(uri("mem:f"), "short", 5);
  EXPECT_EQ(stream->getLength(), 5);
  EXPECT_EQ(stream->getPosition(), 12);
  stream->write("!", 1, nullptr);  // past the end: the gap reads as zeros
  EXPECT_EQ(toText(fs_->getFileData(uri("mem:f"))), std::string("short\0\0\0\0\0\0\0!", 13));
}

}  // namespace
