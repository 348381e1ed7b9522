// The -p display: "    (12.34/100%)" as qemu-img shows it, with the rate
// and the time left behind it, on stderr.
#pragma once

#include <chrono>
#include <cstdint>

namespace zarn_img {

// On a terminal the line is redrawn in place with "\r" at most ten times a
// second; elsewhere (a log file, a pipe) a line is written at each tenth of
// the work, so a log doesn't fill with redraws. A disabled object shows
// nothing. One thread.
class CProgress {
 public:
  CProgress(bool enabled, int64_t totalBytes);
  ~CProgress();
  CProgress(const CProgress&) = delete;
  CProgress& operator=(const CProgress&) = delete;

  // `doneBytes` of the total are through.
  void update(int64_t doneBytes);
  // Shows 100% with the average rate and ends the line.
  void finish();
  // The time since construction, in seconds.
  double getElapsedSeconds() const;

 private:
  void draw(int64_t doneBytes, bool final);

  bool enabled_;
  bool terminal_;
  int64_t totalBytes_;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_;
  int lastTenth_ = -1;
  bool drawn_ = false;
  bool finished_ = false;
};

}  // namespace zarn_img
