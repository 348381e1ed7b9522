// Maps a failure of OpenSSL to the library's error family in one place.
#pragma once

namespace brix {

// Raises kx::CError with `context` and a message that names the failed
// `operation` and carries OpenSSL's text for the oldest queued error. Empties
// OpenSSL's error queue of this thread, so that no stale entry is blamed later.
[[noreturn]] void throwOpenSSLError(const char* context, const char* operation);

}  // namespace brix
