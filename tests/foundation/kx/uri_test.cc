#include "kx/uri.h"

#include <gtest/gtest.h>

#include "kx/error.h"
#include "kx/path.h"

namespace kx {
namespace {

struct SResolveCase {
  const char* reference;
  const char* expected;
};

// The examples of RFC 3986 sections 5.4.1 (normal) and 5.4.2 (abnormal).
const SResolveCase kResolveCases[] = {
    {"g:h", "g:h"},
    {"g", "http://a/b/c/g"},
    {"./g", "http://a/b/c/g"},
    {"g/", "http://a/b/c/g/"},
    {"/g", "http://a/g"},
    {"//g", "http://g"},
    {"?y", "http://a/b/c/d;p?y"},
    {"g?y", "http://a/b/c/g?y"},
    {"#s", "http://a/b/c/d;p?q#s"},
    {"g#s", "http://a/b/c/g#s"},
    {"g?y#s", "http://a/b/c/g?y#s"},
    {";x", "http://a/b/c/;x"},
    {"g;x", "http://a/b/c/g;x"},
    {"g;x?y#s", "http://a/b/c/g;x?y#s"},
    {"", "http://a/b/c/d;p?q"},
    {".", "http://a/b/c/"},
    {"./", "http://a/b/c/"},
    {"..", "http://a/b/"},
    {"../", "http://a/b/"},
    {"../g", "http://a/b/g"},
    {"../..", "http://a/"},
    {"../../", "http://a/"},
    {"../../g", "http://a/g"},
    {"../../../g", "http://a/g"},
    {"../../../../g", "http://a/g"},
    {"/./g", "http://a/g"},
    {"/../g", "http://a/g"},
    {"g.", "http://a/b/c/g."},
    {".g", "http://a/b/c/.g"},
    {"g..", "http://a/b/c/g.."},
    {"..g", "http://a/b/c/..g"},
    {"./../g", "http://a/b/g"},
    {"./g/.", "http://a/b/c/g/"},
    {"g/./h", "http://a/b/c/g/h"},
    {"g/../h", "http://a/b/c/h"},
    {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
    {"g;x=1/../y", "http://a/b/c/y"},
    {"g?y/./x", "http://a/b/c/g?y/./x"},
    {"g?y/../x", "http://a/b/c/g?y/../x"},
    {"g#s/./x", "http://a/b/c/g#s/./x"},
    {"g#s/../x", "http://a/b/c/g#s/../x"},
    {"http:g", "http:g"},
};

TEST(CURITest, ResolvesTheReferenceExamples) {
  const CURI base(String("http://a/b/c/d;p?q"));
  for (const SResolveCase& c : kResolveCases) {
    EXPECT_EQ((base << CURI(String(c.reference))).toString(), c.expected) << "reference " << c.reference;
  }
}

TEST(CURITest, ResolvesAgainstARelativeBase) {
  EXPECT_EQ((CURI(String("a/b")) << CURI(String("../../x"))).toString(), "../x");
  EXPECT_EQ((CURI(String("a/b")) << CURI(String("c:d"))).toString(), "c:d");
  EXPECT_EQ((CURI() << CURI(String("./c:d"))).toString(), "./c:d");
}

TEST(CURITest, ParsesComponents) {
  const CURI uri(String("ftp://me:secret:x@Example.COM:2121/a%20b/c.vmdk?x=1&y#frag%23"));
  EXPECT_EQ(uri.getScheme(), "ftp");
  EXPECT_EQ(*uri.getUserNameOptRef(), "me");
  EXPECT_EQ(*uri.getUserAuthInfoOptRef(), "secret:x");
  EXPECT_EQ(*uri.getHostOptRef(), "Example.COM");
  EXPECT_EQ(uri.getPort(), 2121);
  EXPECT_EQ(uri.getEscapedPath(), "/a%20b/c.vmdk");
  EXPECT_EQ(uri.getPath(), "/a b/c.vmdk");
  EXPECT_EQ(*uri.getEscapedQueryOptRef(), "x=1&y");
  EXPECT_EQ(*uri.getFragmentOptRef(), "frag#");
  EXPECT_TRUE(uri.isAbsolute());

  const CURI ipv6(String("http://[fe80::1:2]:80/x"));
  EXPECT_EQ(*ipv6.getHostOptRef(), "[fe80::1:2]");
  EXPECT_EQ(ipv6.getPort(), 80);

  const CURI noAuthority(String("file:/a/b"));
  EXPECT_FALSE(noAuthority.getHostOptRef().has_value());
  const CURI emptyHost(String("file:///a/b"));
  EXPECT_EQ(*emptyHost.getHostOptRef(), "");
  EXPECT_FALSE(emptyHost.getUserNameOptRef().has_value());
  EXPECT_EQ(emptyHost.getPort(), -1);

  EXPECT_TRUE(CURI(String("")).isEmpty());
  EXPECT_FALSE(CURI(String("#")).isEmpty());
  EXPECT_FALSE(CURI(String("a/b")).isAbsolute());
}

TEST(CURITest, TextRoundTrips) {
  const char* const texts[] = {
      "file:///tmp/x.vmdk",
      "file://server/share/a%20b.vmdk",
      "http://u@h:8080/p?q#f",
      "http://u:@h/",
      "http://[::ffff:10.0.0.1]/",
      "http://[v7.a:b]/",
      "mailto:someone@example.com",
      "urn:a:b:c",
      "a/b/c",
      "../x%2Fy",
      "?only",
      "#only",
      "//host",
      "x:/%25%23%3F",
      "file:///C:/vms/a.vmdk",
  };
  for (const char* text : texts) {
    EXPECT_EQ(CURI(String(text)).toString(), text);
  }
}

TEST(CURITest, EscapesBlanksAndNonASCIIWhenParsing) {
  const String name = String::fromUTF8("Fähre €.vmdk");
  const CURI uri(String("file:///d/") + name);
  EXPECT_EQ(uri.toString(), "file:///d/F%C3%A4hre%20%E2%82%AC.vmdk");
  EXPECT_EQ(uri.getName(), name);
  EXPECT_EQ(uri.toString(true), String("file:///d/") + name);
}

TEST(CURITest, ReadableFormKeepsOtherEscapes) {
  // An escaped slash, an invalid UTF-8 byte and an invisible character stay escaped.
  const CURI uri(String("file:///a%2Fb/%E9/%E2%80%8B/%C3%A9%20x"));
  EXPECT_EQ(uri.toString(true), String::fromUTF8("file:///a%2Fb/%E9/%E2%80%8B/é x"));
}

TEST(CURITest, DecodesInvalidUTF8AsLatin1) {
  EXPECT_EQ(CURI(String("file:///caf%E9")).getName(), String::fromUTF8("café"));
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
    try {
      CURI uri{String(text)};
      ADD_FAILURE() << "taken: " << text;
    } catch (const CInvalidArgError& e) {
      EXPECT_EQ(e.getContext(), "CURI") << text;
      EXPECT_TRUE(e.getProps().has("uri")) << text;
    }
  }
  try {
    CURI uri{
        String("file:///a\x01"
               "b")};
    ADD_FAILURE();
  } catch (const CInvalidArgError& e) {
    EXPECT_EQ(e.getMessage(), "Bad character in URI: %01");
  }
}

TEST(CURITest, Normalizes) {
  const struct {
    const char* text;
    const char* expected;
  } cases[] = {
      {"HTTP://Example.COM/a/./b/../c", "http://example.com/a/c"},
      {"http://a/%7euser/%2f%3a", "http://a/~user/%2F%3A"},
      {"http://%41%62.com/", "http://ab.com/"},
      {"http://A/%41?%7e#%7E", "http://a/A?~#~"},
      {"file:///D/vms/../base/./base.vmdk", "file:///D/base/base.vmdk"},
      {"file:///d/%2E%2E/x", "file:///x"},
      {"a/../../b", "../b"},
      {"./a/./b/..", "a/"},
      {"a/..", "./"},
      {"../../x", "../../x"},
      {"/../x", "/x"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CURI(String(c.text)).toNormalized().toString(), c.expected) << c.text;
  }
}

TEST(CURITest, AddsChildAsOneSegment) {
  const CURI folder(String("file:///tmp/"));
  EXPECT_EQ((folder << String("x.vmdk")).toString(), "file:///tmp/x.vmdk");
  EXPECT_EQ((CURI(String("file:///tmp?q#f")) << String("a b#1%/2?")).toString(),
            "file:///tmp/a%20b%231%25%2F2%3F");
  EXPECT_EQ((CURI(String("http://h")) << String("x")).toString(), "http://h/x");
  EXPECT_EQ((CURI() << String("a:b")).toString(), "./a:b");
  EXPECT_EQ((CURI() << String("a:b")).getPath(), "a:b");
  const CURI child = folder << String::fromUTF8("Ωmega.vmdk");
  EXPECT_EQ(child.toString(), "file:///tmp/%CE%A9mega.vmdk");
  EXPECT_EQ(child.getPath(), String::fromUTF8("/tmp/Ωmega.vmdk"));
}

TEST(CURITest, NameTitleExtensionParent) {
  const struct {
    const char* text;
    const char* name;
    const char* title;
    const char* extension;
    const char* parent;
  } cases[] = {
      {"file:///a/b.vmdk", "b.vmdk", "b", ".vmdk", "file:///a/"},
      {"file:///a/b.tar.gz?q#f", "b.tar.gz", "b.tar", ".gz", "file:///a/"},
      {"file:///a/noext", "noext", "noext", "", "file:///a/"},
      {"file:///a/.hidden", ".hidden", ".hidden", "", "file:///a/"},
      {"file:///a/b/", "b", "b", "", "file:///a/"},
      {"file:///", "", "", "", "file:///"},
      {"http://h/x%20y.vmdk", "x y.vmdk", "x y", ".vmdk", "http://h/"},
      {"disk.vmdk", "disk.vmdk", "disk", ".vmdk", "./"},
      {"../d/disk.vmdk", "disk.vmdk", "disk", ".vmdk", "../d/"},
  };
  for (const auto& c : cases) {
    const CURI uri{String(c.text)};
    EXPECT_EQ(uri.getName(), c.name) << c.text;
    EXPECT_EQ(uri.getTitle(), c.title) << c.text;
    EXPECT_EQ(uri.getExtension(), c.extension) << c.text;
    EXPECT_EQ(uri.getParent().toString(), c.parent) << c.text;
  }
}

TEST(CURITest, BuildsFromParts) {
  const CURI uri(String("http"), String("/a b/c"), String("us er"), String("p:w"), String::fromUTF8("Höst"),
                 8080, String::fromUTF8("x=%C3%A4&y=ä"), String("frag ment"));
  EXPECT_EQ(uri.toString(), "http://us%20er:p:w@H%C3%B6st:8080/a%20b/c?x=%C3%A4&y=%C3%A4#frag%20ment");
  EXPECT_EQ(*uri.getEscapedUnicodeQueryOptRef(), String::fromUTF8("x=ä&y=ä"));

  // A URI rebuilt from its own accessors is the same URI.
  const CURI source(String("ftp://u%3Ax:pw@h%2Fx:21/p%25/q?%C3%A4=1#f%20g"));
  const CURI rebuilt(source.getScheme(), source.getPath(), source.getUserNameOptRef(),
                     source.getUserAuthInfoOptRef(), source.getHostOptRef(), source.getPort(),
                     source.getEscapedUnicodeQueryOptRef(), source.getFragmentOptRef());
  EXPECT_EQ(rebuilt, source);

  const CURI relative(String(), String("a:b/c d"), std::nullopt, std::nullopt, std::nullopt, -1, std::nullopt,
                      std::nullopt);
  EXPECT_EQ(relative.toString(), "./a:b/c%20d");
  EXPECT_FALSE(relative.isAbsolute());
  EXPECT_EQ((CURI(String("file:///d/vms/")) << relative).toString(), "file:///d/vms/a:b/c%20d");

  EXPECT_THROW(
      CURI(String("1x"), String(), std::nullopt, std::nullopt, std::nullopt, -1, std::nullopt, std::nullopt),
      CInvalidArgError);
  EXPECT_THROW(
      CURI(String("x"), String(), std::nullopt, std::nullopt, String("h"), 70000, std::nullopt, std::nullopt),
      CInvalidArgError);
}

TEST(CURITest, Compares) {
  EXPECT_EQ(CURI(String("file:///a")), CURI(String("file:///a")));
  EXPECT_NE(CURI(String("file:///a")), CURI(String("file:/a")));
  EXPECT_NE(CURI(String("file:///a?")), CURI(String("file:///a")));
  EXPECT_NE(CURI(String("http://A/")), CURI(String("http://a/")));
  EXPECT_EQ(CURI(String("http://A/%7e")).toNormalized(), CURI(String("http://a/~")));
}

}  // namespace
}  // namespace kx
