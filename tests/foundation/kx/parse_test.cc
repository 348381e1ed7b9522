#include "kx/parse.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "kx/error.h"

namespace {

TEST(ParseTest, Int64AcceptsTheWholeRange) {
  struct Case {
    const char* text;
    bool hex;
    int64_t value;
  } cases[] = {
      {"0", false, 0},
      {"-0", false, 0},
      {"+17", false, 17},
      {"9223372036854775807", false, std::numeric_limits<int64_t>::max()},
      {"-9223372036854775808", false, std::numeric_limits<int64_t>::min()},
      {"0x1F", true, 31},
      {"-0x10", true, -16},
      {"007", false, 7},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(kx::parseInt64(c.text, c.hex), c.value) << c.text;
  }
}

TEST(ParseTest, Int64RefusesBadText) {
  const char* bad[] = {"", "-", "+", " 1", "1 ", "1a", "9223372036854775808", "-9223372036854775809",
                       "99999999999999999999", "0x10", "1.5", "\xc3\xa9"};
  for (const char* text : bad) {
    EXPECT_THROW(kx::parseInt64(kx::String::fromUTF8(text), false), kx::CError) << text;
  }
  EXPECT_THROW(kx::parseInt64("0x", true), kx::CError);
  try {
    kx::parseInt64("abc");
  } catch (const kx::CError& e) {
    EXPECT_EQ(e.getProps().get("text"), "abc");
    EXPECT_NE(e.getMessage().find("abc"), wxString::npos);
  }
}

TEST(ParseTest, HexReadsOneToSixteenDigits) {
  EXPECT_EQ(kx::parseHexInt64("a", false), 10);
  EXPECT_EQ(kx::parseHexInt64("fffffffe", false), 0xfffffffeLL);
  EXPECT_EQ(kx::parseHexInt64("ABCDEF01", false), 0xabcdef01LL);
  EXPECT_EQ(static_cast<uint64_t>(kx::parseHexInt64("ffffffffffffffff", false)), ~uint64_t{0});
  EXPECT_EQ(kx::parseHexInt64("0x1a", true), 0x1a);
  EXPECT_EQ(kx::parseHexInt64("1a", true), 0x1a);
  const char* bad[] = {"", "g", "0x1a", "12345678901234567", "-1", " 1"};
  for (const char* text : bad) EXPECT_THROW(kx::parseHexInt64(text, false), kx::CError) << text;
  EXPECT_THROW(kx::parseHexInt64("0x", true), kx::CError);
}

TEST(ParseTest, Bool) {
  EXPECT_TRUE(kx::parseBool("true"));
  EXPECT_TRUE(kx::parseBool("TRUE"));
  EXPECT_TRUE(kx::parseBool("1"));
  EXPECT_FALSE(kx::parseBool("False"));
  EXPECT_FALSE(kx::parseBool("no"));
  EXPECT_THROW(kx::parseBool(""), kx::CError);
  EXPECT_THROW(kx::parseBool("truee"), kx::CError);
}

TEST(ParseTest, HexRoundTrip) {
  kx::TBuffer<unsigned char> bytes;
  const unsigned char raw[] = {0x00, 0x7f, 0x80, 0xff, 0x0a};
  bytes.assign(raw, sizeof raw);
  EXPECT_EQ(kx::hexEncode(bytes), "007f80ff0a");
  EXPECT_EQ(kx::hexEncode(bytes, true), "007F80FF0A");
  kx::TBuffer<unsigned char> back;
  kx::hexDecode("007F80ff0A", back);
  EXPECT_TRUE(back == bytes);
  kx::hexDecode("", back);
  EXPECT_EQ(back.getUsed(), 0u);
}

TEST(ParseTest, HexDecodeRefusesAndKeepsTheTarget) {
  kx::TBuffer<unsigned char> out;
  const unsigned char keep[] = {1, 2};
  out.assign(keep, 2);
  EXPECT_THROW(kx::hexDecode("abc", out), kx::CError);
  EXPECT_THROW(kx::hexDecode("zz", out), kx::CError);
  EXPECT_THROW(kx::hexDecode("0g", out), kx::CError);
  ASSERT_EQ(out.getUsed(), 2u);
  EXPECT_EQ(out.getData()[1], 2);
}

}  // namespace
