// New extent files as an independent VMDK implementation sees them: it must
// accept the layout, find the tables through the directories, and be able to
// write grains into the file that zarn made.
#include <gtest/gtest.h>

#include <string>

#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/descriptor.h"
#include "zarn/empty_extent_file.h"

namespace {

const std::string kQemuImg = "/usr/bin/qemu-img";
const std::string kQemuIo = "/usr/bin/qemu-io";
constexpr int64_t kGrains = 1600;

class EmptyExtentPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::hasPeerTool(kQemuImg.c_str()) || !test::hasPeerTool(kQemuIo.c_str())) {
      GTEST_SKIP() << "qemu-utils not installed";
    }
  }

  // The quoted path of the new file.
  std::string create(bool compressed) {
    const std::string text =
        std::string("# Disk DescriptorFile\nversion=1\nCID=12345678\nparentCID=ffffffff\n") +
        "createType=\"" + (compressed ? "streamOptimized" : "monolithicSparse") +
        "\"\n\n# Extent description\nRW " + std::to_string(kGrains * 128) +
        " SPARSE \"disk.vmdk\"\n\n# The Disk Data Base\n#DDB\n\n"
        "ddb.virtualHWVersion = \"4\"\nddb.adapterType = \"ide\"\n";
    kx::TBuffer<unsigned char> bytes;
    bytes.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    zarn::CVMDKDescriptor descriptor(bytes);
    kx::TBuffer<unsigned char> zeros(65536);
    fs_->deleteFile(dir_.getFileURI("disk.vmdk"), true);
    zarn::createEmptyVMDKSparseExtentFile(fs_.get(), dir_.getFileURI("disk.vmdk"), compressed, kGrains, 128,
                                          zeros, &descriptor, 20, {});
    return test::shellQuote(dir_.getPath() + "/disk.vmdk");
  }

  int run(const std::string& command) { return test::runPeerTool(command, output_); }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
  std::string output_;
};

TEST_F(EmptyExtentPeerTest, PeerReadsTheEmptyDisk) {
  const std::string size = std::to_string(kGrains * 65536);
  for (bool compressed : {false, true}) {
    SCOPED_TRACE(compressed ? "compressed" : "plain");
    const std::string path = create(compressed);
    ASSERT_EQ(run(kQemuImg + " info --output=json " + path), 0) << output_;
    EXPECT_NE(output_.find("\"virtual-size\": " + size), std::string::npos) << output_;
    EXPECT_NE(output_.find("\"format\": \"vmdk\""), std::string::npos) << output_;
    ASSERT_EQ(run(kQemuIo + " -r -f vmdk -c 'read -P 0 0 " + size + "' " + path), 0) << output_;
    EXPECT_EQ(output_.find("failed"), std::string::npos) << output_;
  }
}

// The peer writes compressed extents only as a stream, so only the plain
// layout can be checked for writes.
TEST_F(EmptyExtentPeerTest, PeerWritesIntoTheTablesZarnLaidOut) {
  const std::string path = create(false);
  // Grain 513 lies in the second table: the peer must follow directory word 1.
  const std::string offset = std::to_string(513 * 65536);
  ASSERT_EQ(run(kQemuIo + " -f vmdk -c 'write -P 0xab " + offset + " 65536' " + path), 0) << output_;
  ASSERT_EQ(run(kQemuImg + " check " + path), 0) << output_;

  // The grain went behind the head, and both tables zarn wrote point at it:
  // the peer keeps the redundant one in step through the redundant directory.
  const auto bytes = test::readFileBytes(*fs_, dir_.getFileURI("disk.vmdk"));
  uint32_t grain = 0;
  for (const uint64_t directory : {test::le64(bytes, 56), test::le64(bytes, 48)}) {
    const uint32_t table = test::le32(bytes, directory * 512 + 4);
    EXPECT_EQ(table, directory + 1 + 4);  // one directory sector, then the first table of 4
    if (grain == 0) grain = test::le32(bytes, table * 512 + 4);
    EXPECT_EQ(test::le32(bytes, table * 512 + 4), grain);
  }
  EXPECT_GE(grain, test::le64(bytes, 64));
  ASSERT_LE((grain + 128) * 512, bytes.size());
  EXPECT_EQ(bytes[grain * 512], 0xab);
  EXPECT_EQ(bytes[(grain + 128) * 512 - 1], 0xab);
  ASSERT_EQ(run(kQemuIo + " -r -f vmdk -c 'read -P 0xab " + offset + " 65536' -c 'read -P 0 0 " + offset +
                "' " + path),
            0)
      << output_;
  EXPECT_EQ(output_.find("failed"), std::string::npos) << output_;
}

}  // namespace
