// Checks and errors shared by the library's own stream classes, so that every
// stream refuses the same misuse with the same error.
#pragma once

#include <cstdint>

#include "kx/error.h"
#include "kx/stream.h"
#include "kx/uri.h"

namespace kx {

// kx::CIOError code 10, empty message, no properties.
[[noreturn]] void throwStreamClosed();

// Raises kx::CInvalidArgError with `context` for a negative size.
void checkIOSize(int size, const char* context);

// Raises kx::CInvalidArgError with `context` for a negative offset or length.
void checkLockRange(int64_t offset, int64_t length, const char* context);

// kx::CIOError code 4 for a read of `size` bytes at `position` that the
// stream's `length` can't serve.
[[noreturn]] void throwReadPastEnd(const CURI& uri, int64_t position, int size, int64_t length);

// kx::CIOError code 7 for a seek outside 0..length.
[[noreturn]] void throwBadSeek(const CURI& uri, int64_t position, int64_t length);

// kx::CFileSystemError FSPROB_ACCESS_DENIED for an operation that the stream's
// access doesn't allow; `needWrite` tells which side is missing.
[[noreturn]] void throwAccessMismatch(const CURI& uri, bool needWrite);

// Whether the byte ranges overlap; a length of 0 reaches to any end.
bool lockRangesOverlap(int64_t offsetA, int64_t lengthA, int64_t offsetB, int64_t lengthB);

// A property list with "uri" when the URI isn't empty.
CProps makeURIProps(const CURI& uri);

}  // namespace kx
