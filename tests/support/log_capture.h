// Captures the library's log lines for the life of the object.
#pragma once

#include <string>
#include <vector>

#include "kx/log.h"

namespace test {

class CLogCapture {
 public:
  struct Line {
    kx::LogLevel level;
    std::string text;
    std::string errorText;  // what() of the error, empty without one
  };

  CLogCapture() {
    previous_ = kx::setLogSink([this](kx::LogLevel level, const kx::String& text, const std::exception* error) {
      lines.push_back(Line{level, text.toUTF8(), error ? error->what() : ""});
    });
  }
  ~CLogCapture() { kx::setLogSink(previous_); }
  CLogCapture(const CLogCapture&) = delete;
  CLogCapture& operator=(const CLogCapture&) = delete;

  size_t count(kx::LogLevel level) const {
    size_t n = 0;
    for (const auto& line : lines) n += line.level == level;
    return n;
  }

  std::vector<Line> lines;

 private:
  kx::LogSink previous_;
};

}  // namespace test
