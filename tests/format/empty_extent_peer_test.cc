// New extent files as an independent VMDK implementation sees them: it must
// accept the layout, find the tables through the directories, and be able to
// write grains into the file that zarn made.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/descriptor.h"
#include "zarn/empty_extent_file.h"

namespace {

constexpr const char* kQemuImg = "/usr/bin/qemu-img";
constexpr const char* kQemuIo = "/usr/bin/qemu-io";

struct PeerCase {
  const char* name;
  bool compressed;
  const char* createType;
  int64_t grainCount;
};

class EmptyExtentPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::hasPeerTool(kQemuImg) || !test::hasPeerTool(kQemuIo)) GTEST_SKIP() << "qemu-utils not installed";
  }

  std::string create(const PeerCase& c) {
    const int64_t sectors = c.grainCount * 128;
    const std::string text = std::string("# Disk DescriptorFile\nversion=1\nCID=12345678\nparentCID=ffffffff\n") +
                             "createType=\"" + c.createType + "\"\n\n# Extent description\nRW " +
                             std::to_string(sectors) + " SPARSE \"disk.vmdk\"\n\n# The Disk Data Base\n#DDB\n\n" +
                             "ddb.virtualHWVersion = \"4\"\nddb.adapterType = \"ide\"\n";
    kx::TBuffer<unsigned char> bytes(text.size());
    std::memcpy(bytes.getData(), text.data(), text.size());
    zarn::CVMDKDescriptor descriptor(bytes);
    kx::TBuffer<unsigned char> zeros(65536);
    zarn::createEmptyVMDKSparseExtentFile(fs_.get(), dir_.getFileURI("disk.vmdk"), c.compressed, c.grainCount, 128,
                                          zeros, &descriptor, 20, {});
    return dir_.getPath() + "/disk.vmdk";
  }

  int run(const std::string& command) {
    const int status = test::runPeerTool(command, output_);
    SCOPED_TRACE(command);
    return status;
  }

  test::CTempDir dir_;
  kx::P<kx::CLocalFileSystem> fs_ = kx::create<kx::CLocalFileSystem>();
  std::string output_;
};

class EmptyExtentPeerReadTest : public EmptyExtentPeerTest, public ::testing::WithParamInterface<PeerCase> {};

TEST_P(EmptyExtentPeerReadTest, PeerReadsTheEmptyDisk) {
  const PeerCase& c = GetParam();
  const std::string path = test::shellQuote(create(c));
  ASSERT_EQ(run(std::string(kQemuImg) + " info --output=json " + path), 0) << output_;
  EXPECT_NE(output_.find("\"virtual-size\": " + std::to_string(c.grainCount * 65536)), std::string::npos)
      << output_;
  EXPECT_NE(output_.find("\"format\": \"vmdk\""), std::string::npos) << output_;
  ASSERT_EQ(run(std::string(kQemuIo) + " -r -f vmdk -c 'read -P 0 0 " + std::to_string(c.grainCount * 65536) +
                "' " + path),
            0)
      << output_;
  EXPECT_EQ(output_.find("failed"), std::string::npos) << output_;
}

// The peer writes compressed extents only as a stream, so only the plain
// layout can be checked for writes.
TEST_F(EmptyExtentPeerTest, PeerWritesIntoTheTablesZarnLaidOut) {
  const std::string file = create(PeerCase{"plain", false, "monolithicSparse", 1600});
  const std::string path = test::shellQuote(file);
  // Grain 513 lies in the second table: the peer must follow directory word 1.
  const std::string offset = std::to_string(513 * 65536);
  ASSERT_EQ(run(std::string(kQemuIo) + " -f vmdk -c 'write -P 0xab " + offset + " 65536' " + path), 0) << output_;
  ASSERT_EQ(run(std::string(kQemuImg) + " check " + path), 0) << output_;

  // The grain went behind the head, and the primary table zarn wrote points at it.
  const auto bytes = test::readFileBytes(*fs_, dir_.getFileURI("disk.vmdk"));
  const uint64_t overhead = test::le64(bytes, 64);
  const uint64_t directory = test::le64(bytes, 56);
  const uint32_t table = test::le32(bytes, directory * 512 + 4);
  const uint32_t grain = test::le32(bytes, table * 512 + 4);
  // One directory sector, then the first table of 4 sectors.
  EXPECT_EQ(table, directory + 1 + 4);
  // The peer keeps the redundant table in step through the redundant directory.
  const uint64_t redundantDirectory = test::le64(bytes, 48);
  const uint32_t redundantTable = test::le32(bytes, redundantDirectory * 512 + 4);
  EXPECT_EQ(redundantTable, redundantDirectory + 1 + 4);
  EXPECT_EQ(test::le32(bytes, redundantTable * 512 + 4), grain);
  EXPECT_GE(grain, overhead);
  ASSERT_LE((grain + 128) * 512, bytes.size());
  EXPECT_EQ(bytes[grain * 512], 0xab);
  EXPECT_EQ(bytes[(grain + 128) * 512 - 1], 0xab);
  ASSERT_EQ(run(std::string(kQemuIo) + " -r -f vmdk -c 'read -P 0xab " + offset + " 65536' -c 'read -P 0 0 " +
                offset + "' " + path),
            0)
      << output_;
  EXPECT_EQ(output_.find("failed"), std::string::npos) << output_;
}

INSTANTIATE_TEST_SUITE_P(Layouts, EmptyExtentPeerReadTest,
                         ::testing::Values(PeerCase{"plain", false, "monolithicSparse", 1600},
                                           PeerCase{"compressed", true, "streamOptimized", 1600}),
                         [](const ::testing::TestParamInfo<PeerCase>& info) { return info.param.name; });

}  // namespace
