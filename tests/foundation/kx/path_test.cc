#include "kx/path.h"

#include <gtest/gtest.h>

#include "kx/error.h"
#include "kx/uri.h"

namespace kx {
namespace {

TEST(CPathTest, WindowsPathIsNormalizedOnlyWhenItMustBe) {
  const struct {
    const char *text, *expected;  // `expected`: the text the path holds
    bool normalized;
  } cases[] = {
      {"C:\\vms\\a.vmdk", "C:\\vms\\a.vmdk", false}, {"c:\\vms\\", "c:\\vms\\", false},
      {"a.vmdk", "a.vmdk", false}, {"..\\base\\base.vmdk", "..\\base\\base.vmdk", true},
      {"C:/vms/a.vmdk", "C:\\vms\\a.vmdk", true}, {"C:\\vms\\.\\x\\..\\a.vmdk", "C:\\vms\\a.vmdk", true},
      {"C:\\\\vms\\\\a.vmdk", "C:\\vms\\a.vmdk", true}, {"C:\\vms\\a.vmdk. . ", "C:\\vms\\a.vmdk", true},
      {"C:\\vms\\...\\a.vmdk", "C:\\vms\\a.vmdk", true}, {"vms/../../x/y", "..\\x\\y", true},
      {"a\\..", ".", true}, {"C:a\\..\\b", "C:b", true}, {"/vms/./a", "\\vms\\a", true},
      {"\\\\server\\share\\x\\..\\a.vmdk", "\\\\server\\share\\a.vmdk", true},
      {"//server/share", "\\\\server\\share\\", true},
  };
  for (const auto& c : cases) {
    const CWindowsPath path{String(c.text)};
    EXPECT_EQ(path.getPath(), c.expected) << c.text;
    EXPECT_EQ(path.isNormalized(), c.normalized) << c.text;
  }
  for (const char* text :
       {"C:\\..", "C:\\vms\\..\\..\\a", "C:..\\a", "\\..\\a", "\\\\srv\\share\\..", "C:/a/../../b"}) {
    try {
      CWindowsPath path{String(text)};
      ADD_FAILURE() << "taken: " << text;
    } catch (const CBadPathError& e) {
      EXPECT_EQ(e.getMessage(), String("Invalid path: ") + text);
    }
  }
}

TEST(CPathTest, WindowsRoots) {
  const struct {
    const char* text;
    int rootLength;
    bool absolute;
  } cases[] = {
      {"C:\\x", 3, true},  {"C:", 2, false},          {"C:x", 2, false},
      {"\\x", 1, false},   {"\\\\s\\sh\\x", 7, true}, {"\\\\s", 3, true},
      {"x\\y", -1, false}, {"", -1, false},           {"1:\\x", -1, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CWindowsPathTraits::getRootLength(String(c.text)), c.rootLength) << c.text;
    EXPECT_EQ(CWindowsPathTraits::isAbsolute(String(c.text)), c.absolute) << c.text;
  }
  EXPECT_TRUE(CWindowsPathTraits::isAbsolute(String("C:/x")));
}

TEST(CPathTest, UnixPathIsKeptAsSpelled) {
  const CUnixPath path{String("a/../b//./c\\d")};
  EXPECT_EQ(path.getPath(), "a/../b//./c\\d");
  EXPECT_FALSE(path.isNormalized());
  EXPECT_EQ(path.toNormalized().getPath(), "b/c\\d");
  EXPECT_TRUE(CUnixPath(String("/x")).isAbsolute());
  EXPECT_FALSE(CUnixPath(String("x")).isAbsolute());
  EXPECT_EQ(CUnixPath(String("/a/../..")).getPath(), "/a/../..");
  EXPECT_THROW(CUnixPath(String("/a/../..")).toNormalized(), CBadPathError);
}

TEST(CPathTest, PathsBecomeURIs) {
  const struct {
    bool windows;
    const char *path, *uri;
  } cases[] = {
      {false, "/tmp/x.vmdk", "file:///tmp/x.vmdk"}, {false, "disk-s00000.vmdk", "disk-s00000.vmdk"},
      {false, "/d/my disk #1 100%.vmdk", "file:///d/my%20disk%20%231%20100%25.vmdk"},
      {false, "/d/a?b;c=d&e[f].vmdk", "file:///d/a%3Fb;c=d&e%5Bf%5D.vmdk"},
      {false, "../base/base.vmdk", "../base/base.vmdk"}, {false, "a:b.vmdk", "./a:b.vmdk"},
      {false, "dir\\x.vmdk", "dir%5Cx.vmdk"}, {true, "C:\\vms\\a.vmdk", "file:///C:/vms/a.vmdk"},
      {true, "C:/vms/a b.vmdk", "file:///C:/vms/a%20b.vmdk"}, {true, "\\vms\\a.vmdk", "file:///vms/a.vmdk"},
      {true, "\\\\server\\share\\a.vmdk", "file://server/share/a.vmdk"},
      {true, "\\\\?\\C:\\vms\\a.vmdk", "file:///C:/vms/a.vmdk"},
      {true, "\\\\?\\UNC\\server\\share\\a.vmdk", "file://server/share/a.vmdk"},
      {true, "..\\base\\base.vmdk", "../base/base.vmdk"},
      {true, "sub\\dir/x #2.vmdk", "sub/dir/x%20%232.vmdk"},
  };
  for (const auto& c : cases) {
    const CURI uri =
        c.windows ? CURI(CWindowsPath(String(c.path)), false) : CURI(CUnixPath(String(c.path)), false);
    EXPECT_EQ(uri.toString(), c.uri) << c.path;
  }
  EXPECT_EQ(CURI(CUnixPath(String("/a/./b/../c")), true).toString(), "file:///a/c");
  EXPECT_EQ(CURI(CUnixPath(String("/a/./b/../c")), false).toString(), "file:///a/./b/../c");
  EXPECT_THROW(CURI(CUnixPath(String("/..")), true), CBadPathError);
  EXPECT_THROW(CURI(CWindowsPath(String("C:x.vmdk")), false), CInvalidArgError);  // drive-relative

  const String name = String::fromUTF8("Diskette ä€😀.vmdk");
  const CURI unicode(CUnixPath(String("/d/") + name), false);
  EXPECT_EQ(unicode.toString(), "file:///d/Diskette%20%C3%A4%E2%82%AC%F0%9F%98%80.vmdk");
  EXPECT_EQ(unicode.getPath(), String("/d/") + name);
  EXPECT_EQ(CURI(unicode.toString()).getName(), name);
  EXPECT_EQ(CURI(CWindowsPath(String("C:\\d\\") + name), false).getPath(), String("/C:/d/") + name);
}

}  // namespace
}  // namespace kx
