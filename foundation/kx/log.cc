#include "kx/log.h"

#include <cstdio>
#include <mutex>

namespace kx {
namespace {

void defaultSink(LogLevel level, const String& text, const std::exception* error) {
  if (level == LogLevel::Info) return;
  const char* tag = level == LogLevel::Warning ? "warning" : "error";
  if (error) {
    std::fprintf(stderr, "zarn %s: %s: %s\n", tag, text.toUTF8().c_str(), error->what());
  } else {
    std::fprintf(stderr, "zarn %s: %s\n", tag, text.toUTF8().c_str());
  }
}

std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

LogSink& sinkSlot() {
  static LogSink sink = defaultSink;
  return sink;
}

void emit(LogLevel level, const String& text, const std::exception* error) noexcept {
  try {
    LogSink sink;
    {
      std::lock_guard<std::mutex> lock(sinkMutex());
      sink = sinkSlot();
    }
    sink(level, text, error);
  } catch (...) {
    // A log line is never worth an exception in the caller.
  }
}

String withContext(const String& text, const String& context) {
  return context.isEmpty() ? text : String(context + ": " + text);
}

}  // namespace

LogSink setLogSink(LogSink sink) {
  std::lock_guard<std::mutex> lock(sinkMutex());
  LogSink previous = sinkSlot();
  sinkSlot() = sink ? std::move(sink) : LogSink(defaultSink);
  return previous;
}

void logInfo(const String& text) { emit(LogLevel::Info, text, nullptr); }
void logWarning(const String& text) { emit(LogLevel::Warning, text, nullptr); }
void logWarning(const std::exception& error, const String& text, const String& context) {
  emit(LogLevel::Warning, withContext(text, context), &error);
}
void logError(const std::exception& error, const String& text, const String& context) {
  emit(LogLevel::Error, withContext(text, context), &error);
}

void onExceptionInDestructorIgnored(const String& className, const std::exception& error, bool log) noexcept {
  if (!log) return;
  try {
    emit(LogLevel::Error, String("Exception in destructor of ") + className + " ignored.", &error);
  } catch (...) {
  }
}

}  // namespace kx
