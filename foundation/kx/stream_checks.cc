#include "foundation/kx/stream_checks.h"

#include <limits>

namespace kx {

void throwStreamClosed() { throw CIOError(IOERR_STREAM_CLOSED, String()); }

void checkIOSize(int size, const char* context) {
  if (size < 0) {
    throw CInvalidArgError(context, "Negative byte count", CProps().add("size", int64_t{size}));
  }
}

void checkLockRange(int64_t offset, int64_t length, const char* context) {
  if (offset < 0 || length < 0) {
    throw CInvalidArgError(context, "Bad lock range", CProps().add("offset", offset).add("length", length));
  }
}

CProps makeURIProps(const CURI& uri) {
  CProps props;
  if (!uri.isEmpty()) props.add("uri", uri.toString(true));
  return props;
}

void throwReadPastEnd(const CURI& uri, int64_t position, int size, int64_t length) {
  throw CIOError(
      IOERR_READ_PAST_END, "Read past the end of the stream.",
      makeURIProps(uri).add("position", position).add("bytesToRead", int64_t{size}).add("length", length));
}

void throwBadSeek(const CURI& uri, int64_t position, int64_t length) {
  throw CIOError(IOERR_BAD_SEEK_POSITION, "Bad seek position.",
                 makeURIProps(uri).add("position", position).add("length", length));
}

void throwAccessMismatch(const CURI& uri, bool needWrite) {
  throw CFileSystemError(FSPROB_ACCESS_DENIED, CError(needWrite ? "Stream is not open for writing."
                                                                : "Stream is not open for reading.",
                                                      String(), -1, makeURIProps(uri)));
}

bool lockRangesOverlap(int64_t offsetA, int64_t lengthA, int64_t offsetB, int64_t lengthB) {
  constexpr int64_t kNoEnd = std::numeric_limits<int64_t>::max();
  const int64_t endA = lengthA == 0 || lengthA > kNoEnd - offsetA ? kNoEnd : offsetA + lengthA;
  const int64_t endB = lengthB == 0 || lengthB > kNoEnd - offsetB ? kNoEnd : offsetB + lengthB;
  return offsetA < endB && offsetB < endA;
}

}  // namespace kx
