#include "kx/uri.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "kx/error.h"
#include "tests/support/caught_error.h"

namespace kx {
namespace {

CURI uri(const char* text) { return CURI(String(text)); }

// The examples of RFC 3986 sections 5.4.1 (normal) and 5.4.2 (abnormal), then relative bases.
TEST(CURITest, ResolvesReferences) {
  const struct {
    const char *reference, *expected;
  } cases[] = {
      {"g:h", "g:h"}, {"g", "http://a/b/c/g"}, {"./g", "http://a/b/c/g"}, {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"}, {"//g", "http://g"}, {"?y", "http://a/b/c/d;p?y"}, {"g?y", "http://a/b/c/g?y"},
      {"#s", "http://a/b/c/d;p?q#s"}, {"g#s", "http://a/b/c/g#s"}, {"g?y#s", "http://a/b/c/g?y#s"},
      {";x", "http://a/b/c/;x"}, {"g;x", "http://a/b/c/g;x"}, {"g;x?y#s", "http://a/b/c/g;x?y#s"},
      {"", "http://a/b/c/d;p?q"}, {".", "http://a/b/c/"}, {"./", "http://a/b/c/"}, {"..", "http://a/b/"},
      {"../", "http://a/b/"}, {"../g", "http://a/b/g"}, {"../..", "http://a/"}, {"../../", "http://a/"},
      {"../../g", "http://a/g"}, {"../../../g", "http://a/g"}, {"../../../../g", "http://a/g"},
      {"/./g", "http://a/g"}, {"/../g", "http://a/g"}, {"g.", "http://a/b/c/g."}, {".g", "http://a/b/c/.g"},
      {"g..", "http://a/b/c/g.."}, {"..g", "http://a/b/c/..g"}, {"./../g", "http://a/b/g"},
      {"./g/.", "http://a/b/c/g/"}, {"g/./h", "http://a/b/c/g/h"}, {"g/../h", "http://a/b/c/h"},
      {"g;x=1/./y", "http://a/b/c/g;x=1/y"}, {"g;x=1/../y", "http://a/b/c/y"},
      {"g?y/./x", "http://a/b/c/g?y/./x"}, {"g?y/../x", "http://a/b/c/g?y/../x"},
      {"g#s/./x", "http://a/b/c/g#s/./x"}, {"g#s/../x", "http://a/b/c/g#s/../x"}, {"http:g", "http:g"},
  };
  const CURI base = uri("http://a/b/c/d;p?q");
  for (const auto& c : cases) EXPECT_EQ((base << uri(c.reference)).toString(), c.expected) << c.reference;

  EXPECT_EQ((uri("a/b") << uri("../../x")).toString(), "../x");
  EXPECT_EQ((uri("a/b") << uri("c:d")).toString(), "c:d");
  EXPECT_EQ((CURI() << uri("./c:d")).toString(), "./c:d");
}

TEST(CURITest, ParsesComponents) {
  const CURI full = uri("ftp://me:secret:x@Example.COM:2121/a%20b/c.vmdk?x=1&y#frag%23");
  EXPECT_EQ(full.getScheme(), "ftp");
  EXPECT_EQ(*full.getUserNameOptRef(), "me");
  EXPECT_EQ(*full.getUserAuthInfoOptRef(), "secret:x");
  EXPECT_EQ(*full.getHostOptRef(), "Example.COM");
  EXPECT_EQ(full.getPort(), 2121);
  EXPECT_EQ(full.getEscapedPath(), "/a%20b/c.vmdk");
  EXPECT_EQ(full.getPath(), "/a b/c.vmdk");
  EXPECT_EQ(*full.getEscapedQueryOptRef(), "x=1&y");
  EXPECT_EQ(*full.getFragmentOptRef(), "frag#");
  EXPECT_TRUE(full.isAbsolute());
  EXPECT_EQ(*uri("http://[fe80::1:2]:80/x").getHostOptRef(), "[fe80::1:2]");
  EXPECT_FALSE(uri("file:/a/b").getHostOptRef().has_value());
  EXPECT_TRUE(uri("").isEmpty());
  EXPECT_FALSE(uri("#").isEmpty());
  EXPECT_FALSE(uri("a/b").isAbsolute());
}

// Text survives parsing and printing, and a URI rebuilt from its own accessors is the same URI.
TEST(CURITest, RoundTrips) {
  const char* const texts[] = {
      "file:///tmp/x.vmdk", "file://server/share/a%20b.vmdk", "http://u@h:8080/p?q#f", "http://u:@h/",
      "http://[::ffff:10.0.0.1]/", "http://[v7.a:b]/", "mailto:someone@example.com", "urn:a:b:c", "a/b/c",
      "../x%2Fy", "?only", "#only", "//host", "x:/%25%23%3F", "file:///C:/vms/a.vmdk", "file:/a/b",
      "http://[fe80::1:2]:80/x", "ftp://u%3Ax:pw@h%2Fx:21/p%25/q?%C3%A4=1#f%20g",
  };
  for (const char* text : texts) {
    const CURI u = uri(text);
    EXPECT_EQ(u.toString(), text);
    if (std::strstr(text, "%2F")) continue;  // an escaped slash has no unescaped spelling
    EXPECT_EQ(CURI(u.getScheme(), u.getPath(), u.getUserNameOptRef(), u.getUserAuthInfoOptRef(),
                   u.getHostOptRef(), u.getPort(), u.getEscapedUnicodeQueryOptRef(), u.getFragmentOptRef()),
              u)
        << text;
  }
}

TEST(CURITest, EscapesAndDecodesNonASCII) {
  const String name = String::fromUTF8("Fähre €.vmdk");
  const CURI parsed(String("file:///d/") + name);
  EXPECT_EQ(parsed.toString(), "file:///d/F%C3%A4hre%20%E2%82%AC.vmdk");
  EXPECT_EQ(parsed.getName(), name);
  EXPECT_EQ(parsed.toString(true), String("file:///d/") + name);

  // The readable form keeps an escaped slash, an invalid UTF-8 byte and an invisible character escaped.
  EXPECT_EQ(uri("file:///a%2Fb/%E9/%E2%80%8B/%C3%A9%20x").toString(true),
            String::fromUTF8("file:///a%2Fb/%E9/%E2%80%8B/é x"));
}

// One mapping between escaped segments and names, the same in every view:
// bytes that are no UTF-8 read as U+DC80..U+DCFF and go back to the same
// escapes, an escaped "/" stays inside its segment, and no local name is
// made from a segment that holds "/" or a zero byte.
TEST(CURITest, SegmentsAndNamesMapOneToOne) {
  const struct {
    const char* text;
    String name;
    const char* localPath;  // null: no local name
  } cases[] = {
      {"file:///d/%C3%BF", String(L"\u00ff"), "/d/\xc3\xbf"},
      {"file:///d/%FF", String(wxString(wxUniChar(0xDCFF))), "/d/\xff"},
      {"file:///d/caf%E9%C3%A9", String(L"caf") + wxUniChar(0xDCE9) + L"\u00e9", "/d/caf\xe9\xc3\xa9"},
      {"file:///d/sub%2Ff.vmdk", String("sub/f.vmdk"), nullptr},
      {"file:///d/a%00b", String(wxString(L"a\0b", 3)), nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const CURI u = uri(c.text);
    EXPECT_EQ(u.getName(), c.name);
    EXPECT_EQ(u.getParent().toString(), "file:///d/");
    EXPECT_EQ(u.getParent() << c.name, u);
    std::string bytes;
    ASSERT_EQ(u.tryGetPathBytes(bytes), c.localPath != nullptr);
    if (!c.localPath) continue;  // nor can getPath show an escaped "/"
    EXPECT_EQ(bytes, c.localPath);
    EXPECT_EQ(CURI(u.getScheme(), u.getPath(), std::nullopt, std::nullopt, String(), -1, std::nullopt, std::nullopt),
              u);
  }

  // Text that maps to no bytes never turns into a shorter name.
  for (const unsigned bad : {0xD800u, 0xDC7Fu, 0x110000u}) {
    const String text = String("x") + wxUniChar(bad);
    EXPECT_THROW(uri("file:///d/") << text, CInvalidArgError) << bad;
    EXPECT_THROW(CURI(String("file:///d/") + text), CInvalidArgError) << bad;
  }
}

TEST(CURITest, RefusesBadText) {
  const char* const texts[] = {
      "http://a/%",        "http://a/%4",   "http://a/%zz",   "1http://a/",
      ":b.vmdk",           "a b:c",         "http://a:b/",    "http://a:99999/",
      "http://[::1/",      "http://[1:2]/", "http://[::1]x/", "http://a/b\\c",
      "http://a/\"",       "http://a/<b>",  "http://a/b#c#d", "http://a/\x01",
      "http://a b/",       "http://u@v@h/", "http://a/{x}",   "http://[::1::2]/",
      "http://[1.2.3.4]/",
  };
  for (const char* text : texts) {
    const CInvalidArgError e = test::caught([&] { uri(text); }, CInvalidArgError("taken", ""));
    EXPECT_EQ(e.getContext(), "CURI") << text;
    EXPECT_TRUE(e.getProps().has("uri")) << text;
  }
  EXPECT_EQ(test::caught([] { uri("file:///a\x01"); }, CError("")).getMessage(), "Bad character in URI: %01");
}

TEST(CURITest, NormalizesAndCompares) {
  const struct {
    const char *text, *expected;
  } cases[] = {
      {"HTTP://Example.COM/a/./b/../c", "http://example.com/a/c"}, {"http://%41%62.com/", "http://ab.com/"},
      {"http://a/%7euser/%2f%3a", "http://a/~user/%2F%3A"}, {"http://A/%41?%7e#%7E", "http://a/A?~#~"},
      {"file:///D/vms/../base/./base.vmdk", "file:///D/base/base.vmdk"}, {"file:///d/%2E%2E/x", "file:///x"},
      {"a/../../b", "../b"}, {"./a/./b/..", "a/"}, {"a/..", "./"}, {"../../x", "../../x"}, {"/../x", "/x"},
  };
  for (const auto& c : cases) EXPECT_EQ(uri(c.text).toNormalized().toString(), c.expected) << c.text;

  // In time by the length: a million segments, then as many "..", take a
  // second or so where a copy per ".." took many minutes.
  std::string deep;
  for (int i = 0; i < 1000000; ++i) deep += "a/";
  for (int i = 0; i < 1000000; ++i) deep += "../";
  const auto start = std::chrono::steady_clock::now();
  const CURI relative(String::fromUTF8(deep));
  EXPECT_EQ(CURI(String::fromUTF8("file:///" + deep)).toNormalized().toString(), "file:///");
  EXPECT_EQ(relative.toNormalized().toString(), "./");
  EXPECT_EQ((uri("file:///") << relative).toString(), "file:///");
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 30.0);

  EXPECT_EQ(uri("file:///a"), uri("file:///a"));
  EXPECT_NE(uri("file:///a"), uri("file:/a"));
  EXPECT_NE(uri("file:///a?"), uri("file:///a"));
  EXPECT_NE(uri("http://A/"), uri("http://a/"));
  EXPECT_EQ(uri("http://A/%7e").toNormalized(), uri("http://a/~"));
}

TEST(CURITest, AddsChildAsOneSegment) {
  const CURI folder = uri("file:///tmp/");
  EXPECT_EQ((folder << String("x.vmdk")).toString(), "file:///tmp/x.vmdk");
  EXPECT_EQ((uri("file:///tmp?q#f") << String("a b#1%/2?")).toString(), "file:///tmp/a%20b%231%25%2F2%3F");
  EXPECT_EQ((uri("http://h") << String("x")).toString(), "http://h/x");
  EXPECT_EQ((CURI() << String("a:b")).toString(), "./a:b");
  EXPECT_EQ((CURI() << String("a:b")).getPath(), "a:b");
  const CURI child = folder << String::fromUTF8("Ωmega.vmdk");
  EXPECT_EQ(child.toString(), "file:///tmp/%CE%A9mega.vmdk");
  EXPECT_EQ(child.getPath(), String::fromUTF8("/tmp/Ωmega.vmdk"));
}

TEST(CURITest, NameTitleExtensionParent) {
  const std::pair<const char*, const char*> cases[] = {
      // name|title|extension|parent
      {"file:///a/b.vmdk", "b.vmdk|b|.vmdk|file:///a/"},
      {"file:///a/b.tar.gz?q#f", "b.tar.gz|b.tar|.gz|file:///a/"},
      {"file:///a/noext", "noext|noext||file:///a/"}, {"file:///a/.hidden", ".hidden|.hidden||file:///a/"},
      {"file:///a/b/", "b|b||file:///a/"}, {"file:///", "|||file:///"},
      {"disk.vmdk", "disk.vmdk|disk|.vmdk|./"}, {"http://h/x%20y.vmdk", "x y.vmdk|x y|.vmdk|http://h/"},
      {"../d/disk.vmdk", "disk.vmdk|disk|.vmdk|../d/"},
  };
  for (const auto& [text, parts] : cases) {
    const CURI u = uri(text);
    const String got = u.getName() + "|" + u.getTitle() + "|" + u.getExtension() + "|";
    EXPECT_EQ(got + u.getParent().toString(), parts) << text;
  }
}

TEST(CURITest, BuildsFromParts) {
  const CURI built(String("http"), String("/a b/c"), String("us er"), String("p:w"),
                   String::fromUTF8("Höst"), 8080, String::fromUTF8("x=%C3%A4&y=ä"), String("frag ment"));
  EXPECT_EQ(built.toString(), "http://us%20er:p:w@H%C3%B6st:8080/a%20b/c?x=%C3%A4&y=%C3%A4#frag%20ment");
  EXPECT_EQ(*built.getEscapedUnicodeQueryOptRef(), String::fromUTF8("x=ä&y=ä"));

  const auto make = [](const char* scheme, const char* path, const char* host, int port) {
    return CURI(String(scheme), String(path), std::nullopt, std::nullopt,
                host ? std::optional<String>(String(host)) : std::nullopt, port, std::nullopt, std::nullopt);
  };
  const CURI relative = make("", "a:b/c d", nullptr, -1);
  EXPECT_EQ((uri("file:///d/vms/") << relative).toString(), "file:///d/vms/a:b/c%20d");
  EXPECT_EQ(relative.toString(), "./a:b/c%20d");
  EXPECT_THROW(make("1x", "", nullptr, -1), CInvalidArgError);
  EXPECT_THROW(make("x", "", "h", 70000), CInvalidArgError);
}

}  // namespace
}  // namespace kx
