#include "kx/parse.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "kx/error.h"

namespace {

TEST(ParseTest, Int64AndHexInt64) {
  const struct {
    const char* text;
    bool prefix;
    int64_t value;
  } decimal[] = {
      {"0", false, 0}, {"-0", false, 0}, {"+17", false, 17}, {"007", false, 7},
      {"9223372036854775807", false, std::numeric_limits<int64_t>::max()},
      {"-9223372036854775808", false, std::numeric_limits<int64_t>::min()},
      {"0x1F", true, 31}, {"-0x10", true, -16},
  }, hex[] = {
      {"a", false, 10}, {"fffffffe", false, 0xfffffffeLL}, {"ABCDEF01", false, 0xabcdef01LL},
      {"ffffffffffffffff", false, -1}, {"0x1a", true, 0x1a}, {"1a", true, 0x1a},
  };
  for (const auto& c : decimal) EXPECT_EQ(kx::parseInt64(c.text, c.prefix), c.value) << c.text;
  for (const auto& c : hex) EXPECT_EQ(kx::parseHexInt64(c.text, c.prefix), c.value) << c.text;

  for (const char* text : {"", "-", "+", " 1", "1 ", "1a", "9223372036854775808", "-9223372036854775809",
                           "99999999999999999999", "0x10", "1.5", "\xc3\xa9"}) {
    EXPECT_THROW(kx::parseInt64(kx::String::fromUTF8(text), false), kx::CError) << text;
  }
  for (const char* text : {"", "g", "0x1a", "12345678901234567", "-1", " 1"}) {
    EXPECT_THROW(kx::parseHexInt64(text, false), kx::CError) << text;
  }
  EXPECT_THROW(kx::parseInt64("0x", true), kx::CError);
  EXPECT_THROW(kx::parseHexInt64("0x", true), kx::CError);
  try {
    kx::parseInt64("abc");
    ADD_FAILURE();
  } catch (const kx::CError& e) {
    EXPECT_EQ(e.getProps().get("text"), "abc");
    EXPECT_NE(e.getMessage().find("abc"), wxString::npos);
  }
}

TEST(ParseTest, Bool) {
  for (const char* text : {"true", "TRUE", "1"}) EXPECT_TRUE(kx::parseBool(text)) << text;
  for (const char* text : {"False", "no"}) EXPECT_FALSE(kx::parseBool(text)) << text;
  for (const char* text : {"", "truee"}) EXPECT_THROW(kx::parseBool(text), kx::CError) << text;
}

TEST(ParseTest, HexEncodeAndDecode) {
  kx::TBuffer<unsigned char> bytes;
  const unsigned char raw[] = {0x00, 0x7f, 0x80, 0xff, 0x0a};
  bytes.assign(raw, sizeof raw);
  EXPECT_EQ(kx::hexEncode(bytes), "007f80ff0a");
  EXPECT_EQ(kx::hexEncode(bytes, true), "007F80FF0A");
  kx::TBuffer<unsigned char> back;
  kx::hexDecode("007F80ff0A", back);
  EXPECT_TRUE(back == bytes);

  // A refused text leaves the target as it was.
  for (const char* text : {"abc", "zz", "0g"}) EXPECT_THROW(kx::hexDecode(text, back), kx::CError) << text;
  EXPECT_TRUE(back == bytes);
  kx::hexDecode("", back);
  EXPECT_EQ(back.getUsed(), 0u);
}

}  // namespace
