#include "zarn/extent_info.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tests/support/log_capture.h"

namespace {

using zarn::CVMDKExtentInfo;

TEST(ExtentInfoTest, ParsesExtentLinesAndWritesThemInOneForm) {
  struct Case {
    const char* line;
    const char* access;
    int64_t sizeSectors;
    const char* type;
    const char* filename;
    int64_t offset;
    const char* written;
  } cases[] = {
      {"RW 2048 SPARSE \"disk-s001.vmdk\"", "RW", 2048, "SPARSE", "disk-s001.vmdk", -1,
       "RW 2048 SPARSE \"disk-s001.vmdk\""},
      {"RW  2048   SPARSE   \"a b.vmdk\"   0", "RW", 2048, "SPARSE", "a b.vmdk", 0,
       "RW 2048 SPARSE \"a b.vmdk\" 0"},
      {"RW 2048 SPARSE \"a.vmdk\"\r", "RW", 2048, "SPARSE", "a.vmdk", -1, "RW 2048 SPARSE \"a.vmdk\""},
      {"RW 2048 SPARSE \"a.vmdk\" 17\r", "RW", 2048, "SPARSE", "a.vmdk", 17, "RW 2048 SPARSE \"a.vmdk\" 17"},
      {"RW 8 SPARSE \"a=b.vmdk\"", "RW", 8, "SPARSE", "a=b.vmdk", -1, "RW 8 SPARSE \"a=b.vmdk\""},
      {"RDONLY 0 FLAT \"\" 12", "RDONLY", 0, "FLAT", "", 12, "RDONLY 0 FLAT \"\" 12"},
      {"NOACCESS -5 VMFS \"x\"", "NOACCESS", -5, "VMFS", "x", -1, "NOACCESS -5 VMFS \"x\""},
      {" 8 SPARSE \"x\"", "", 8, "SPARSE", "x", -1, " 8 SPARSE \"x\""},
      {"RW 8 SPARSE \t\"x\"\t", "RW", 8, "SPARSE", "x", -1, "RW 8 SPARSE \"x\""},
      {"RW 8 SPARSE \"C:\\VMs\\x.vmdk\"", "RW", 8, "SPARSE", "C:\\VMs\\x.vmdk", -1,
       "RW 8 SPARSE \"C:\\VMs\\x.vmdk\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    kx::P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParseDescriptorLine(c.line);
    ASSERT_TRUE(extent);
    EXPECT_EQ(extent->getAccess(), c.access);
    EXPECT_EQ(extent->getSizeSectors(), c.sizeSectors);
    EXPECT_EQ(extent->getType(), c.type);
    EXPECT_EQ(extent->getFilename(), c.filename);
    EXPECT_EQ(extent->getOffset(), c.offset);
    EXPECT_EQ(extent->toString(), c.written);
  }
}

TEST(ExtentInfoTest, OtherLinesAreNoExtentsAndLogNothing) {
  const char* lines[] = {
      "",
      "RW",
      "RW 2048 ZERO",
      "RW 2048 SPARSE a.vmdk",
      "RW abc SPARSE \"a.vmdk\"",
      "RW 2048 SPARSE \"a.vmdk\" x",
      "RW 2048 SPARSE \"a.vmdk\" 1 2",
      "RW 2048 SPARSE \"a.vmdk",
      "RW\t2048 SPARSE \"a.vmdk\"",
      "RW 2048\tSPARSE \"a.vmdk\"",
      "RW 99999999999999999999 SPARSE \"a.vmdk\"",
      "# Extent description",
  };
  test::CLogCapture log;
  for (const char* line : lines) EXPECT_FALSE(CVMDKExtentInfo::tryParseDescriptorLine(line)) << line;
  EXPECT_TRUE(log.lines.empty());
}

}  // namespace
