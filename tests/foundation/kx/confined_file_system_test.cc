// Disks from untrusted sources: every reference that leads out of the allowed
// folder is refused, and the same disk opened without the wrapper shows that
// each one would otherwise have reached outside.
#include "kx/confined_file_system.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "kx/local_file_system.h"
#include "kx/memory_file_system.h"
#include "kx/path.h"
#include "tests/support/caught_error.h"
#include "tests/support/file_bytes.h"
#include "tests/support/temp_dir.h"
#include "zarn/disk.h"

namespace {

class ConfinedFileSystemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(root_ + "/vms");
    std::filesystem::create_directories(root_ + "/vms2");
    // A valid extent outside the folder, that hostile descriptors point at.
    zarn::CVMDKDisk::create(local_.get(), uri("outside.vmdk"), 1, "", false, -1, -1, "", 0xFFFFFFFF, false);
    zarn::CVMDKDisk::create(local_.get(), uri("vms/disk.vmdk"), 1, "", false, -1, 0x80000000, "", 0xFFFFFFFF, false);
  }
  kx::CURI uri(const std::string& path) const {
    return kx::CURI(kx::CUnixPath(kx::String::fromUTF8(root_ + "/" + path)), false);
  }
  // The disk whose only extent line names `reference`.
  void pointAt(const std::string& reference) {
    auto bytes = test::readFileBytes(*local_, uri("vms/disk.vmdk"));
    std::string text(bytes.begin(), bytes.end());
    const size_t at = text.find('"', text.find("RW ")) + 1;
    text.replace(at, text.find('"', at) - at, reference);
    test::writeFileBytes(*local_, uri("vms/disk.vmdk"), std::vector<unsigned char>(text.begin(), text.end()));
  }

  test::CTempDir dir_;
  const std::string root_ = dir_.getPath();
  kx::P<kx::CLocalFileSystem> local_ = kx::create<kx::CLocalFileSystem>();
};

TEST_F(ConfinedFileSystemTest, HostileReferencesInADescriptorAreRefused) {
  std::filesystem::create_symlink("../outside.vmdk", root_ + "/vms/link.vmdk");
  const std::string references[] = {"../outside.vmdk", "..\\outside.vmdk", "sub/../../outside.vmdk",
                                    root_ + "/outside.vmdk", "file://" + root_ + "/outside.vmdk", "link.vmdk",
                                    "../vms2/../outside.vmdk"};
  auto confined = kx::create<kx::CConfinedFileSystem>(local_, uri("vms/"));
  for (const std::string& reference : references) {
    SCOPED_TRACE(reference);
    pointAt(reference);
    EXPECT_NO_THROW(kx::create<zarn::CVMDKDisk>(local_.get(), uri("vms/disk.vmdk"), kx::IIOStream::ACCESS_READ, ""))
        << "without the wrapper the reference reaches the outside extent";
    const kx::CFileSystemError error = test::caught(
        [&] { kx::create<zarn::CVMDKDisk>(confined.get(), uri("vms/disk.vmdk"), kx::IIOStream::ACCESS_READ, ""); },
        kx::CFileSystemError(0, kx::CError("none")));
    EXPECT_EQ(error.getProblem(), kx::FSPROB_ACCESS_DENIED);
    EXPECT_NE(error.getMessage().find("lies outside the allowed folder"), wxString::npos) << error.getMessage();
    pointAt("disk-s00000.vmdk");  // back, for the next row
  }
}

TEST_F(ConfinedFileSystemTest, EncodedSeparatorsDotsAndPrefixesAreTakenApartBySegment) {
  auto confined = kx::create<kx::CConfinedFileSystem>(local_, uri("vms/"));
  const std::string base = "file://" + root_;
  for (const std::string& text : {base + "/vms/%2E%2E/outside.vmdk", base + "/vms/x%2F..%2F..%2Foutside.vmdk",
                                  base + "/vms2/x.vmdk", base + "/vms", base + "/outside.vmdk", std::string("/etc/passwd"),
                                  base + "/vms/a%00b"}) {
    SCOPED_TRACE(text);
    const kx::CURI hostile{kx::String(text)};
    int flags = 0;
    EXPECT_THROW(confined->openFile(hostile, kx::IIOStream::ACCESS_READ, flags), kx::CFileSystemError);
    EXPECT_THROW(confined->fileExists(hostile), kx::CFileSystemError);
    EXPECT_THROW(confined->deleteFile(hostile, true), kx::CFileSystemError);
    EXPECT_THROW(confined->renameFile(hostile, uri("vms/x.vmdk")), kx::CFileSystemError);
    EXPECT_THROW(confined->renameFile(uri("vms/disk.vmdk"), hostile), kx::CFileSystemError);
  }
  EXPECT_TRUE(local_->fileExists(kx::CURI(kx::String(base + "/vms/%2E%2E/outside.vmdk"))))
      << "unconfined, the encoded dots reach out";
  EXPECT_TRUE(confined->fileExists(kx::CURI(kx::String(base + "/vms/sub/../disk.vmdk"))));
  confined->renameFile(uri("vms/disk.vmdk"), uri("vms/moved.vmdk"));
  EXPECT_TRUE(local_->fileExists(uri("vms/moved.vmdk")));
  EXPECT_FALSE(local_->fileExists(uri("vms/disk.vmdk")));
}

TEST_F(ConfinedFileSystemTest, ALinkSwappedInAfterTheCheckIsRefused) {
  auto confined = kx::create<kx::CConfinedFileSystem>(local_, uri("vms/"));
  const kx::CURI inside = uri("vms/disk-s00000.vmdk");
  ASSERT_TRUE(confined->fileExists(inside));  // the check passes on a real file
  std::filesystem::remove(root_ + "/vms/disk-s00000.vmdk");
  std::filesystem::create_symlink(root_ + "/outside.vmdk", root_ + "/vms/disk-s00000.vmdk");
  int flags = 0;
  const kx::CFileSystemError error =
      test::caught([&] { confined->openFile(inside, kx::IIOStream::ACCESS_READ, flags); },
                   kx::CFileSystemError(0, kx::CError("none")));
  EXPECT_EQ(error.getProblem(), kx::FSPROB_ACCESS_DENIED);

  // Over another file system the check is by name alone, and the name given
  // to it is the resolved one.
  auto memory = kx::create<kx::CMemoryFileSystem>();
  auto wrapped = kx::create<kx::CConfinedFileSystem>(memory, kx::CURI(kx::String("file:///vms")));
  auto stream = wrapped->openFile(kx::CURI(kx::String("file:///vms/a/../b.vmdk")), kx::IIOStream::ACCESS_READ_WRITE, flags);
  EXPECT_EQ(stream->getURI().toString(), "file:///vms/a/../b.vmdk");
  EXPECT_TRUE(memory->fileExists(kx::CURI(kx::String("file:///vms/b.vmdk"))));
}

}  // namespace
