#include "kx/error.h"

#include <gtest/gtest.h>

#include <string>

#include "kx/log.h"
#include "tests/support/caught_error.h"
#include "tests/support/log_capture.h"

namespace {

TEST(ErrorTest, PropsKeepOrderShowInWhatAndCanBeAddedOnTheWayUp) {
  kx::CProps props;
  props.add("zeta", "last").add("alpha", int64_t{-5}).add("mid", uint64_t{18446744073709551615u});
  EXPECT_EQ(props.get("missing"), "");
  EXPECT_EQ(props.toString(), "zeta: last, alpha: -5, mid: 18446744073709551615");
  kx::CInvalidArgError error("CVMDKGrain::seek", "Bad position", kx::CProps().add("position", int64_t{7}));
  EXPECT_EQ(error.getCode(), -1);
  EXPECT_STREQ(error.what(), "CVMDKGrain::seek: Bad position (position: 7)");

  const kx::CIOError rethrown = test::caught(
      [] {
        try {
          throw kx::CIOError(kx::IOERR_DAMAGED_DATA, "Broken");
        } catch (kx::CError& e) {
          e.getParams().add("uri", "file:///x");
          throw;
        }
      },
      kx::CIOError(0, ""));
  EXPECT_EQ(rethrown.getCode(), 5);
  EXPECT_STREQ(rethrown.what(), "Broken (uri: file:///x)");
}

TEST(ErrorTest, InnerErrorKeepsItsDynamicType) {
  kx::CIOError inner(kx::IOERR_READ_PAST_END, "Short read");
  kx::CError outer("Outer", "", -1, kx::CProps(), &inner);
  EXPECT_NE(std::string(outer.what()).find("Short read"), std::string::npos);
  EXPECT_EQ(test::ioErrorCode([&] { outer.getInner()->rethrowCopy(); }), kx::IOERR_READ_PAST_END);
}

TEST(LogTest, SinkGetsLevelsAndContextAndMayNotThrow) {
  {
    test::CLogCapture capture;
    kx::logInfo("hello");
    kx::logError(kx::CError("bad thing"), "about to fail", "ctx");
    ASSERT_EQ(capture.lines.size(), 2u);
    EXPECT_EQ(capture.lines[0].level, kx::LogLevel::Info);
    EXPECT_EQ(capture.lines[1].level, kx::LogLevel::Error);
    EXPECT_EQ(capture.lines[1].text, "ctx: about to fail");
    EXPECT_EQ(capture.lines[1].errorText, "bad thing");
  }
  auto previous = kx::setLogSink(
      [](kx::LogLevel, const kx::String&, const std::exception*) { throw std::runtime_error("sink broke"); });
  EXPECT_NO_THROW(kx::logWarning("x"));
  kx::setLogSink(previous);
}

}  // namespace
