// The library's log lines go to one replaceable sink, so an application can
// route them into its own log and a test can capture them. The default sink
// writes warnings and errors to stderr and drops information lines.
#pragma once

#include <exception>
#include <functional>

#include "kx/string.h"

namespace kx {

enum class LogLevel { Info, Warning, Error };

// `error` is null for lines without one. The sink may be called from any
// thread that uses the library; it must not throw.
using LogSink = std::function<void(LogLevel level, const String& text, const std::exception* error)>;

// Installs `sink` (an empty function restores the default) and returns the
// one that was installed before.
LogSink setLogSink(LogSink sink);

void logInfo(const String& text);
void logWarning(const String& text);
void logWarning(const std::exception& error, const String& text, const String& context = String());
void logError(const std::exception& error, const String& text, const String& context = String());

// A destructor that writes catches what its flush raises and reports it here,
// with its class name ("zarn::CVMDKGrain"). Never throws.
void onExceptionInDestructorIgnored(const String& className, const std::exception& error, bool log = true) noexcept;

}  // namespace kx
