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
    const char* parsed;   // access|size|type|file name|offset
    const char* written;  // null: the line itself
  } cases[] = {
      {"RW 2048 SPARSE \"disk-s001.vmdk\"", "RW|2048|SPARSE|disk-s001.vmdk|-1", nullptr},
      {"RW  2048   SPARSE   \"a b.vmdk\"   0", "RW|2048|SPARSE|a b.vmdk|0", "RW 2048 SPARSE \"a b.vmdk\" 0"},
      {"RW 2048 SPARSE \"a.vmdk\" 17\r", "RW|2048|SPARSE|a.vmdk|17", "RW 2048 SPARSE \"a.vmdk\" 17"},
      {"RW 8 SPARSE \"a=b.vmdk\"", "RW|8|SPARSE|a=b.vmdk|-1", nullptr},
      {"RDONLY 0 FLAT \"\" 12", "RDONLY|0|FLAT||12", nullptr},
      {"NOACCESS -5 VMFS \"x\"", "NOACCESS|-5|VMFS|x|-1", nullptr},
      {" 8 SPARSE \"x\"", "|8|SPARSE|x|-1", nullptr},
      {"RW 8 SPARSE \t\"x\"\t", "RW|8|SPARSE|x|-1", "RW 8 SPARSE \"x\""},
      {"RW 8 SPARSE \"C:\\VMs\\x.vmdk\"", "RW|8|SPARSE|C:\\VMs\\x.vmdk|-1", nullptr},
      {"RW 9223372036854775807 S \"x\" -9223372036854775808", "RW|9223372036854775807|S|x|-9223372036854775808",
       nullptr},
  };
  for (const auto& c : cases) {
    kx::P<CVMDKExtentInfo> e = CVMDKExtentInfo::tryParseDescriptorLine(c.line);
    ASSERT_TRUE(e) << c.line;
    EXPECT_EQ(e->getAccess().toUTF8() + "|" + std::to_string(e->getSizeSectors()) + "|" +
                  e->getType().toUTF8() + "|" + e->getFilename().toUTF8() + "|" +
                  std::to_string(e->getOffset()),
              c.parsed);
    EXPECT_EQ(e->toString(), c.written ? c.written : c.line);
  }
}

TEST(ExtentInfoTest, OtherLinesAreNoExtentsAndLogNothing) {
  const char* lines[] = {"",
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
                         "RW 8 SPARSE \"a.vmdk\" 9223372036854775808",
                         "# Extent description"};
  test::CLogCapture log;
  for (const char* line : lines) EXPECT_FALSE(CVMDKExtentInfo::tryParseDescriptorLine(line)) << line;
  EXPECT_TRUE(log.lines.empty());
}

}  // namespace
