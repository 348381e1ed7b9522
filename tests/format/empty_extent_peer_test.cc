// New extent files as an independent VMDK implementation sees them: it must
// accept the layout and read every grain as zeros through the tables. Where
// the tables lie is checked byte for byte in empty_extent_file_test.cc.
#include <gtest/gtest.h>

#include <string>

#include "kx/local_file_system.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/descriptor.h"
#include "zarn/empty_extent_file.h"

namespace {

TEST(EmptyExtentPeerTest, PeerReadsTheEmptyDisk) {
  const std::string qemuImg = "/usr/bin/qemu-img", qemuIo = "/usr/bin/qemu-io";
  if (!test::hasPeerTool(qemuImg.c_str()) || !test::hasPeerTool(qemuIo.c_str())) {
    GTEST_SKIP() << "qemu-utils not installed";
  }
  // 1600 grains: more than one table, and a partial last one.
  const int64_t grains = 1600;
  const std::string size = std::to_string(grains * 65536);
  test::CTempDir dir;
  auto fs = kx::create<kx::CLocalFileSystem>();
  kx::TBuffer<unsigned char> zeros(65536);
  for (bool compressed : {false, true}) {
    SCOPED_TRACE(compressed ? "compressed" : "plain");
    const std::string text =
        std::string("# Disk DescriptorFile\nversion=1\nCID=12345678\nparentCID=ffffffff\n") +
        "createType=\"" + (compressed ? "streamOptimized" : "monolithicSparse") +
        "\"\n\n# Extent description\nRW " + std::to_string(grains * 128) +
        " SPARSE \"disk.vmdk\"\n\n# The Disk Data Base\n#DDB\n\n"
        "ddb.virtualHWVersion = \"4\"\nddb.adapterType = \"ide\"\n";
    kx::TBuffer<unsigned char> bytes;
    bytes.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    zarn::CVMDKDescriptor descriptor(bytes);
    fs->deleteFile(dir.getFileURI("disk.vmdk"), true);
    zarn::createEmptyVMDKSparseExtentFile(fs.get(), dir.getFileURI("disk.vmdk"), compressed, grains, 128,
                                          zeros, &descriptor, 20, {});
    const std::string path = test::shellQuote(dir.getPath() + "/disk.vmdk");
    std::string output;
    ASSERT_EQ(test::runPeerTool(qemuImg + " info --output=json " + path, output), 0) << output;
    EXPECT_NE(output.find("\"virtual-size\": " + size), std::string::npos) << output;
    EXPECT_NE(output.find("\"format\": \"vmdk\""), std::string::npos) << output;
    ASSERT_EQ(test::runPeerTool(qemuIo + " -r -f vmdk -c 'read -P 0 0 " + size + "' " + path, output), 0)
        << output;
    EXPECT_EQ(output.find("failed"), std::string::npos) << output;
  }
}

}  // namespace
