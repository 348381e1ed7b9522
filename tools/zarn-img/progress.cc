#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace zarn_img {

CProgress::CProgress(bool enabled, int64_t totalBytes)
    : enabled_(enabled), terminal_(::isatty(STDERR_FILENO) == 1), totalBytes_(totalBytes),
      start_(std::chrono::steady_clock::now()), lastDraw_(start_) {
  if (enabled_) draw(0, false);
}

CProgress::~CProgress() {
  // An interrupted run leaves the cursor at the start of a fresh line.
  if (enabled_ && drawn_ && !finished_ && terminal_) std::fputc('\n', stderr);
}

double CProgress::getElapsedSeconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void CProgress::update(int64_t doneBytes) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (terminal_) {
    if (now - lastDraw_ < std::chrono::milliseconds(100)) return;
  } else {
    const int tenth = totalBytes_ > 0 ? static_cast<int>(doneBytes * 10 / totalBytes_) : 10;
    if (tenth == lastTenth_ || tenth >= 10) return;
  }
  lastDraw_ = now;
  draw(doneBytes, false);
}

void CProgress::finish() {
  if (!enabled_ || finished_) return;
  draw(totalBytes_, true);
  finished_ = true;
}

void CProgress::draw(int64_t doneBytes, bool final) {
  const double percent = totalBytes_ > 0 ? 100.0 * static_cast<double>(doneBytes) / static_cast<double>(totalBytes_) : 100.0;
  const double seconds = getElapsedSeconds();
  const double mbPerSecond = seconds > 0 ? static_cast<double>(doneBytes) / 1e6 / seconds : 0;
  char rate[64] = "";
  if ((final || seconds >= 0.05) && doneBytes > 0) std::snprintf(rate, sizeof rate, "  %.1f MB/s", mbPerSecond);
  char time[64] = "";
  const auto clock = [](double s) {
    static char text[32];
    const long total = static_cast<long>(s + 0.5);
    std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
    return text;
  };
  if (final) {
    std::snprintf(time, sizeof time, "  %s total", clock(seconds));
  } else if (doneBytes > 0 && seconds >= 0.05) {
    const double left = seconds * static_cast<double>(totalBytes_ - doneBytes) / static_cast<double>(doneBytes);
    std::snprintf(time, sizeof time, "  %s left", clock(left));
  }
  if (terminal_) {
    // The trailing blanks wipe what a longer earlier line left.
    std::fprintf(stderr, "\r    (%.2f/100%%)%s%s    %s", percent, rate, time, final ? "\n" : "");
  } else {
    std::fprintf(stderr, "    (%.2f/100%%)%s%s\n", percent, rate, time);
    lastTenth_ = totalBytes_ > 0 ? static_cast<int>(doneBytes * 10 / totalBytes_) : 10;
  }
  std::fflush(stderr);
  drawn_ = true;
}

}  // namespace zarn_img
