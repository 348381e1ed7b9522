// Descriptors that an independent VMDK implementation wrote: zarn must read
// them, and what it stores back must still open in that implementation with
// the content ID that zarn put there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "kx/error.h"
#include "kx/local_file_system.h"
#include "tests/support/file_bytes.h"
#include "tests/support/peer_tool.h"
#include "tests/support/temp_dir.h"
#include "zarn/descriptor.h"
#include "zarn/descriptor_accessor.h"
#include "zarn/extent_info.h"

namespace {

using zarn::CVMDKDescriptorAccessor;

constexpr const char* kQemuImg = "/usr/bin/qemu-img";
constexpr int64_t kDiskBytes = 4 << 20;

struct QemuLayout {
  const char* createType;
  const char* options;
  bool embedded;
  const char* extent;
};

// The content ID that qemu-img reports for the disk, or -1 when it refuses the
// disk. qemu-img prints it in decimal.
int64_t qemuContentID(const std::string& path, std::string& output) {
  if (test::runPeerTool(std::string(kQemuImg) + " info --output=json -f vmdk " + test::shellQuote(path),
                        output) != 0) {
    return -1;
  }
  const std::string key = "\"cid\": ";
  const size_t at = output.find(key);
  if (at == std::string::npos) return -1;
  return std::stoll(output.substr(at + key.size()));
}

kx::P<CVMDKDescriptorAccessor> openAccessor(kx::IFileSystem& fs, const kx::CURI& uri) {
  int flags = 0;
  kx::P<kx::IIOStream> stream = fs.openFile(uri, kx::IIOStream::ACCESS_READ_WRITE, flags);
  return kx::create<CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ_WRITE);
}

TEST(DescriptorPeerTest, QemuImgDescriptorsLoadAndStoreBack) {
  if (!test::hasPeerTool(kQemuImg)) GTEST_SKIP() << "qemu-utils not installed";
  const QemuLayout layouts[] = {
      {"monolithicSparse", "", true, "RW 8192 SPARSE \"disk.vmdk\""},
      {"monolithicFlat", "-o subformat=monolithicFlat", false, "RW 8192 FLAT \"disk-flat.vmdk\" 0"},
      {"twoGbMaxExtentSparse", "-o subformat=twoGbMaxExtentSparse", false,
       "RW 8192 SPARSE \"disk-s001.vmdk\""},
  };
  kx::P<kx::CLocalFileSystem> fs = kx::create<kx::CLocalFileSystem>();
  for (const QemuLayout& layout : layouts) {
    SCOPED_TRACE(layout.createType);
    test::CTempDir dir;
    const std::string path = dir.getPath() + "/disk.vmdk";
    const kx::CURI uri = dir.getFileURI("disk.vmdk");
    std::string output;
    ASSERT_EQ(test::runPeerTool(std::string(kQemuImg) + " create -f vmdk " + layout.options + " " +
                                    test::shellQuote(path) + " 4M",
                                output),
              0)
        << output;
    const int64_t createdContentID = qemuContentID(path, output);
    ASSERT_GE(createdContentID, 0) << output;

    {
      kx::P<CVMDKDescriptorAccessor> accessor = openAccessor(*fs, uri);
      EXPECT_EQ(accessor->getEmbeddedInSparseExtentFile(), layout.embedded);
      kx::P<zarn::CVMDKDescriptor> descriptor = accessor->getDescriptor();
      EXPECT_EQ(descriptor->getContentID(), static_cast<uint32_t>(createdContentID));
      EXPECT_EQ(descriptor->getCreateType(), layout.createType);
      kx::TArray<kx::P<zarn::CVMDKExtentInfo>> extents;
      descriptor->getExtentEntries(extents);
      ASSERT_EQ(extents.size(), 1u);
      EXPECT_EQ(extents[0]->toString(), layout.extent);

      if (!layout.embedded) {
        // qemu-img sizes a descriptor file to its text, and the file never
        // grows through the accessor: the encoding line that a store adds
        // has no room, and the file must come through untouched.
        const std::vector<unsigned char> before = test::readFileBytes(*fs, uri);
        accessor->changeContentID();
        EXPECT_THROW(accessor->storeDescriptor(true), kx::CError);
        EXPECT_EQ(test::readFileBytes(*fs, uri), before);
      }
    }
    // Room behind the text of a descriptor file, zero-filled as zarn leaves it
    // in its own.
    if (!layout.embedded) std::filesystem::resize_file(path, std::filesystem::file_size(path) + 512);

    const std::vector<unsigned char> before = test::readFileBytes(*fs, uri);
    uint32_t contentID = 0;
    std::string storedText;
    {
      kx::P<CVMDKDescriptorAccessor> accessor = openAccessor(*fs, uri);
      contentID = accessor->changeContentID();
      accessor->storeDescriptor(true);
      storedText = accessor->getDescriptor()->toString().toUTF8();
    }
    const std::vector<unsigned char> after = test::readFileBytes(*fs, uri);
    ASSERT_EQ(after.size(), before.size());
    if (layout.embedded) {
      // Only the descriptor area (from sector 1, as qemu-img lays it out)
      // may change; header and tables stay as they were.
      const size_t areaStart = 512 * test::le64(before, 28);
      const size_t areaEnd = areaStart + 512 * test::le64(before, 36);
      ASSERT_LE(areaEnd, before.size());
      EXPECT_TRUE(std::equal(before.begin(), before.begin() + areaStart, after.begin()));
      EXPECT_TRUE(std::equal(before.begin() + areaEnd, before.end(), after.begin() + areaEnd));
    }
    EXPECT_EQ(openAccessor(*fs, uri)->getDescriptor()->toString().toUTF8(), storedText);

    EXPECT_EQ(qemuContentID(path, output), static_cast<int64_t>(contentID)) << output;
    EXPECT_NE(output.find(std::string("\"create-type\": \"") + layout.createType + "\""), std::string::npos)
        << output;
    EXPECT_NE(output.find(std::string("\"virtual-size\": ") + std::to_string(kDiskBytes)), std::string::npos)
        << output;
  }
}

}  // namespace
