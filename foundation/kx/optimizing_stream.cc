#include "kx/optimizing_stream.h"

#include <algorithm>
#include <cstring>

#include "kx/error.h"
#include "kx/log.h"

namespace kx {
namespace {

// A first miss reads this much; misses that follow each other double it up to
// the buffer size, so a sequential scan soon costs one target read per buffer
// while scattered small reads don't drag in a megabyte each.
constexpr int kInitialReadAheadBytes = 64 * 1024;

void checkSize(int size, const char* context) {
  if (size < 0) {
    throw CInvalidArgError(context, "Negative size", CProps().add("size", size));
  }
}

int64_t alignDown(int64_t value, int64_t align) { return value - value % align; }

}  // namespace

COptimizingInStream::COptimizingInStream(P<IInStream> target, int bufferSizeBytes)
    : target_(std::move(target)),
      bufferSizeBytes_(bufferSizeBytes),
      readAheadBytes_(std::min(kInitialReadAheadBytes, bufferSizeBytes)) {
  if (!target_) {
    throw CInvalidArgError("COptimizingInStream::COptimizingInStream", "The target stream is null");
  }
  if (bufferSizeBytes < 1) {
    throw CInvalidArgError("COptimizingInStream::COptimizingInStream", "The buffer size is below 1",
                           CProps().add("bufferSizeBytes", bufferSizeBytes));
  }
  targetLengthBytes_ = target_->getLength();
  targetPosition_ = target_->getPosition();
  position_ = targetPosition_;
}

COptimizingInStream::~COptimizingInStream() = default;

void COptimizingInStream::checkOpen() const {
  if (closed_) throw CIOError(IOERR_STREAM_CLOSED, String());
}

int64_t COptimizingInStream::getLength() {
  checkOpen();
  return pendingBytes_ > 0 ? std::max(targetLengthBytes_, getPendingEnd()) : targetLengthBytes_;
}

int64_t COptimizingInStream::getPosition() {
  checkOpen();
  return position_;
}

CURI COptimizingInStream::getURI() { return target_->getURI(); }

void COptimizingInStream::seek(int64_t position) {
  const int64_t length = getLength();
  if (position < 0 || position > length) {
    throw CIOError(IOERR_BAD_SEEK_POSITION, "Seek position is outside the stream",
                   CProps().add("position", position).add("length", length));
  }
  position_ = position;
}

P<IStreamLock> COptimizingInStream::lockRange(int64_t offset, int64_t length, LockType type) {
  checkOpen();
  return target_->lockRange(offset, length, type);
}

void COptimizingInStream::closeTarget() {
  closed_ = true;
  pendingBytes_ = 0;
  readBufferBytes_ = 0;
  readBuffer_ = TBuffer<unsigned char>();
  writeBuffer_ = TBuffer<unsigned char>();
  target_->close();
}

void COptimizingInStream::close() {
  if (closed_) return;
  closeTarget();
}

void COptimizingInStream::read(void* buffer, int size) {
  checkOpen();
  checkSize(size, "COptimizingInStream::read");
  const int64_t length = getLength();
  if (size > length - position_) {
    throw CIOError(IOERR_READ_PAST_END, "Read past the end of the stream",
                   CProps().add("position", position_).add("bytesToRead", size).add("length", length));
  }
  position_ += readAt(static_cast<unsigned char*>(buffer), size);
}

int COptimizingInStream::readLax(void* buffer, int size) {
  checkOpen();
  checkSize(size, "COptimizingInStream::readLax");
  const int count = readAt(static_cast<unsigned char*>(buffer), size);
  position_ += count;
  return count;
}

int COptimizingInStream::readAvailable(void* buffer, int size) { return readLax(buffer, size); }

bool COptimizingInStream::waitReadable(int) {
  checkOpen();
  return true;
}

bool COptimizingInStream::isEndOfStream() { return position_ >= getLength(); }

int COptimizingInStream::isEndOfStream_NonBlocking() { return isEndOfStream() ? 1 : 0; }

int COptimizingInStream::getPositionAlign() {
  checkOpen();
  return 1;
}

int COptimizingInStream::getBufferAlign() {
  checkOpen();
  return 1;
}

int COptimizingInStream::getBestPerformancePositionAlign() {
  checkOpen();
  return kBestPerformanceAlignBytes;
}

int COptimizingInStream::readAt(unsigned char* out, int size) {
  const int64_t available = getLength() - position_;
  const int count = static_cast<int>(std::min<int64_t>(size, std::max<int64_t>(available, 0)));
  int done = 0;
  while (done < count) {
    const int64_t pos = position_ + done;
    const int remaining = count - done;
    const int64_t readBufferEnd = readBufferStart_ + readBufferBytes_;
    if (pos >= readBufferStart_ && pos < readBufferEnd) {
      const int n = static_cast<int>(std::min<int64_t>(remaining, readBufferEnd - pos));
      std::memcpy(out + done, readBuffer_.getData() + (pos - readBufferStart_), n);
      done += n;
    } else if (pendingBytes_ > 0 && pos >= pendingStart_ && pos < getPendingEnd()) {
      const int n = static_cast<int>(std::min<int64_t>(remaining, getPendingEnd() - pos));
      std::memcpy(out + done, writeBuffer_.getData() + (pos - pendingStart_), n);
      done += n;
    } else if (remaining >= bufferSizeBytes_) {
      readContentAt(pos, out + done, remaining);
      done = count;
    } else {
      fillReadBuffer(pos, remaining);
    }
  }
  return count;
}

void COptimizingInStream::readContentAt(int64_t position, unsigned char* out, int size) {
  const int fromTarget = static_cast<int>(std::clamp<int64_t>(targetLengthBytes_ - position, 0, size));
  if (fromTarget > 0) {
    seekTarget(position);
    try {
      target_->read(out, fromTarget);
    } catch (...) {
      forgetTargetPosition();
      throw;
    }
    targetPosition_ = position + fromTarget;
  }
  if (pendingBytes_ > 0) {
    const int64_t from = std::max(position, pendingStart_);
    const int64_t to = std::min(position + size, getPendingEnd());
    if (from < to) {
      std::memcpy(out + (from - position), writeBuffer_.getData() + (from - pendingStart_),
                  static_cast<size_t>(to - from));
    }
  }
}

void COptimizingInStream::fillReadBuffer(int64_t position, int wantedBytes) {
  const bool sequential = readBufferBytes_ > 0 && position == readBufferStart_ + readBufferBytes_;
  readAheadBytes_ = sequential
                        ? static_cast<int>(std::min<int64_t>(int64_t{readAheadBytes_} * 2, bufferSizeBytes_))
                        : std::min(kInitialReadAheadBytes, bufferSizeBytes_);
  // Starting on a page boundary costs the target nothing and catches the
  // small step back that format code often takes.
  int64_t start = alignDown(position, kBestPerformanceAlignBytes);
  if (position - start + wantedBytes > bufferSizeBytes_) start = position;
  const int64_t bytes = std::min<int64_t>({std::max<int64_t>(readAheadBytes_, position - start + wantedBytes),
                                           bufferSizeBytes_, getLength() - start});
  readBufferBytes_ = 0;
  // Allocated at the first need, small first: an open that reads a header
  // and goes shouldn't pay for a megabyte. The first growth takes it all.
  if (readBuffer_.getUsed() < static_cast<size_t>(bytes)) {
    readBuffer_.setUsed(0);
    readBuffer_.setUsed(bytes <= kInitialReadAheadBytes ? std::min(kInitialReadAheadBytes, bufferSizeBytes_)
                                                        : bufferSizeBytes_);
  }
  readContentAt(start, readBuffer_.getData(), static_cast<int>(bytes));
  readBufferStart_ = start;
  readBufferBytes_ = static_cast<int>(bytes);
}

void COptimizingInStream::updateReadBuffer(int64_t position, const unsigned char* data, int size) {
  const int64_t from = std::max(position, readBufferStart_);
  const int64_t to = std::min(position + size, readBufferStart_ + readBufferBytes_);
  if (from < to) {
    std::memcpy(readBuffer_.getData() + (from - readBufferStart_), data + (from - position),
                static_cast<size_t>(to - from));
  }
}

void COptimizingInStream::truncateReadBuffer(int64_t length) {
  readBufferBytes_ = static_cast<int>(std::clamp<int64_t>(length - readBufferStart_, 0, readBufferBytes_));
}

void COptimizingInStream::seekTarget(int64_t position) {
  if (targetPosition_ == position) return;
  targetPosition_ = -1;
  target_->seek(position);
  targetPosition_ = position;
}

COptimizingIOStream::COptimizingIOStream(P<IIOStream> target, int bufferSizeBytes)
    : COptimizingInStream(P<IInStream>(target), bufferSizeBytes), ioTarget_(std::move(target)) {}

COptimizingIOStream::~COptimizingIOStream() {
  if (closed_) return;
  try {
    writePending();
  } catch (const std::exception& e) {
    onExceptionInDestructorIgnored("kx::COptimizingIOStream", e);
  }
}

void COptimizingIOStream::close() {
  if (closed_) return;
  try {
    writePending();
    ioTarget_->flush();
  } catch (...) {
    try {
      closeTarget();
    } catch (const std::exception& e2) {
      logWarning(e2, "Error closing a stream after its buffered data could not be written. Ignoring.");
    }
    throw;
  }
  closeTarget();
}

void COptimizingIOStream::write(const void* data, int size, IWriteBarrier*) {
  checkOpen();
  checkSize(size, "COptimizingIOStream::write");
  writeImpl(static_cast<const unsigned char*>(data), size, size >= std::min(kDirectWriteMinBytes, bufferSizeBytes_));
}

void COptimizingIOStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier*) {
  checkOpen();
  const int size = static_cast<int>(data.getLength());
  checkSize(size, "COptimizingIOStream::writeKeepBuffer");
  writeImpl(data.getData(), size, size >= std::min(kDirectKeepBufferMinBytes, bufferSizeBytes_));
}

P<IWriteBarrier> COptimizingIOStream::createWriteBarrier(IWriteBarrier*) {
  checkOpen();
  return create<CDummyWriteBarrier>();
}

void COptimizingIOStream::flush() {
  checkOpen();
  writePending();
  ioTarget_->flush();
}

void COptimizingIOStream::setLength(int64_t length) {
  checkOpen();
  if (length < 0) {
    throw CInvalidArgError("COptimizingIOStream::setLength", "Negative length",
                           CProps().add("length", length));
  }
  writePending();
  forgetTargetPosition();
  ioTarget_->setLength(length);
  targetLengthBytes_ = length;
  truncateReadBuffer(length);
  position_ = std::min(position_, length);
}

void COptimizingIOStream::writeImpl(const unsigned char* data, int size, bool direct) {
  if (size == 0) return;
  const int64_t position = position_;
  try {
    if (direct) {
      writePending();
      writeTargetAt(position, data, size);
    } else {
      // Joining the run is allowed anywhere inside it or at its end, as long
      // as it stays one contiguous range within the buffer; anything else
      // sends the run on its way first.
      const bool joins = pendingBytes_ > 0 && position >= pendingStart_ && position <= getPendingEnd() &&
                         position + size - pendingStart_ <= bufferSizeBytes_;
      if (!joins) {
        writePending();
        pendingStart_ = position;
      }
      if (writeBuffer_.isEmpty()) writeBuffer_.setUsed(bufferSizeBytes_);  // only streams that write pay
      std::memcpy(writeBuffer_.getData() + (position - pendingStart_), data, size);
      pendingBytes_ = static_cast<int>(std::max<int64_t>(pendingBytes_, position + size - pendingStart_));
    }
  } catch (...) {
    invalidateReadBuffer();
    throw;
  }
  updateReadBuffer(position, data, size);
  position_ = position + size;
}

void COptimizingIOStream::writePending() {
  if (pendingBytes_ == 0) return;
  writeTargetAt(pendingStart_, writeBuffer_.getData(), pendingBytes_);
  pendingBytes_ = 0;
}

void COptimizingIOStream::writeTargetAt(int64_t position, const unsigned char* data, int size) {
  seekTarget(position);
  try {
    ioTarget_->write(data, size, nullptr);
  } catch (...) {
    forgetTargetPosition();
    throw;
  }
  targetPosition_ = position + size;
  targetLengthBytes_ = std::max(targetLengthBytes_, targetPosition_);
}

}  // namespace kx
