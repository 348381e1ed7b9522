// A descriptor that an independent VMDK implementation wrote: zarn must read
// it, and what it stores back must still open in that implementation with the
// content ID that zarn put there. Descriptor files of other layouts are
// checked against their golden bytes in descriptor_test.cc.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/descriptor.h"
#include "zarn/descriptor_accessor.h"
#include "zarn/extent_info.h"

namespace {

constexpr const char* kQemuImg = "/usr/bin/qemu-img";

// The content ID that qemu-img reports for the disk (in decimal), or -1 when
// it refuses the disk.
int64_t qemuContentID(const std::string& path, std::string& output) {
  if (test::runPeerTool(std::string(kQemuImg) + " info --output=json -f vmdk " + test::shellQuote(path),
                        output) != 0) {
    return -1;
  }
  const size_t at = output.find("\"cid\": ");
  return at == std::string::npos ? -1 : std::stoll(output.substr(at + 7));
}

TEST(DescriptorPeerTest, QemuImgEmbeddedDescriptorLoadsAndStoresBack) {
  if (!test::hasPeerTool(kQemuImg)) GTEST_SKIP() << "qemu-utils not installed";
  test::CTempDir dir;
  const std::string path = dir.getPath() + "/disk.vmdk";
  const kx::CURI uri = dir.getFileURI("disk.vmdk");
  std::string output;
  ASSERT_EQ(
      test::runPeerTool(std::string(kQemuImg) + " create -f vmdk " + test::shellQuote(path) + " 4M", output),
      0)
      << output;
  const int64_t createdContentID = qemuContentID(path, output);
  ASSERT_GE(createdContentID, 0) << output;

  auto fs = kx::create<kx::CLocalFileSystem>();
  const std::vector<unsigned char> before = test::readFileBytes(*fs, uri);
  uint32_t contentID = 0;
  {
    int flags = 0;
    kx::P<kx::IIOStream> stream = fs->openFile(uri, kx::IIOStream::ACCESS_READ_WRITE, flags);
    auto accessor = kx::create<zarn::CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ_WRITE);
    EXPECT_TRUE(accessor->getEmbeddedInSparseExtentFile());
    kx::P<zarn::CVMDKDescriptor> descriptor = accessor->getDescriptor();
    EXPECT_EQ(descriptor->getContentID(), static_cast<uint32_t>(createdContentID));
    kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
    descriptor->getExtentEntries(extents);
    ASSERT_EQ(extents.size(), 1u);
    EXPECT_EQ(extents[0]->toString(), "RW 8192 SPARSE \"disk.vmdk\"");
    contentID = accessor->changeContentID();
    accessor->storeDescriptor(true);
  }
  // Only the descriptor area (from sector 1, as qemu-img lays it out) may
  // change; header and tables stay as they were.
  const std::vector<unsigned char> after = test::readFileBytes(*fs, uri);
  ASSERT_EQ(after.size(), before.size());
  const size_t areaStart = 512 * test::le64(before, 28);
  const size_t areaEnd = areaStart + 512 * test::le64(before, 36);
  ASSERT_LE(areaEnd, before.size());
  EXPECT_TRUE(std::equal(before.begin(), before.begin() + areaStart, after.begin()));
  EXPECT_TRUE(std::equal(before.begin() + areaEnd, before.end(), after.begin() + areaEnd));

  EXPECT_EQ(qemuContentID(path, output), static_cast<int64_t>(contentID)) << output;
  EXPECT_NE(output.find("\"virtual-size\": 4194304"), std::string::npos) << output;
}

}  // namespace
