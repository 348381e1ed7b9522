#include "kx/buffer_stream.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "foundation/kx/stream_checks.h"
#include "kx/error.h"

namespace kx {

CBufferStream::CBufferStream(P<TBuffer<unsigned char>> buffer, double growth, const CURI& uri)
    : buffer_(std::move(buffer)), growth_(growth), uri_(uri) {
  if (!buffer_) throw CInvalidArgError("CBufferStream", "No buffer");
  if (!(growth_ >= 1.0)) {
    throw CInvalidArgError("CBufferStream", "Growth factor below 1",
                           CProps().add("growth", String(std::to_string(growth_))));
  }
}

CBufferStream::CBufferStream() : CBufferStream(create<TBuffer<unsigned char>>(), 2.0) {}

void CBufferStream::checkOpen() const {
  if (closed_) throwStreamClosed();
}

int64_t CBufferStream::getLength() {
  checkOpen();
  return static_cast<int64_t>(buffer_->getUsed());
}

int64_t CBufferStream::getPosition() {
  checkOpen();
  return position_;
}

void CBufferStream::seek(int64_t position) {
  const int64_t length = getLength();
  if (position < 0 || position > length) throwBadSeek(uri_, position, length);
  position_ = position;
}

P<IStreamLock> CBufferStream::lockRange(int64_t, int64_t, LockType) {
  checkOpen();
  throw CFileSystemError(FSPROB_NOT_SUPPORTED, CError("A buffer stream does not support lockRange.", String(),
                                                      -1, makeURIProps(uri_)));
}

void CBufferStream::read(void* buffer, int size) {
  checkIOSize(size, "CBufferStream::read");
  const int64_t length = getLength();
  if (size > length - position_) throwReadPastEnd(uri_, position_, size, length);
  if (size > 0) std::memcpy(buffer, buffer_->getData() + position_, static_cast<size_t>(size));
  position_ += size;
}

int CBufferStream::readLax(void* buffer, int size) {
  checkIOSize(size, "CBufferStream::readLax");
  const int64_t left = std::max<int64_t>(0, getLength() - position_);
  const int count = static_cast<int>(std::min<int64_t>(size, left));
  if (count > 0) std::memcpy(buffer, buffer_->getData() + position_, static_cast<size_t>(count));
  position_ += count;
  return count;
}

bool CBufferStream::waitReadable(int) {
  checkOpen();
  return true;
}

bool CBufferStream::isEndOfStream() { return getPosition() >= getLength(); }

void CBufferStream::resize(size_t length) {
  const size_t old = buffer_->getUsed();
  if (length > buffer_->getAllocated()) {
    const double grown = std::ceil(static_cast<double>(buffer_->getAllocated()) * growth_);
    const size_t target = grown >= static_cast<double>(std::numeric_limits<size_t>::max())
                              ? length
                              : static_cast<size_t>(grown);
    buffer_->ensureAllocated(std::max(length, target));
  }
  buffer_->setUsed(length);
  // Bytes that were used before a shrink keep their old content; a stream
  // that grows must show zeros there.
  if (length > old) std::memset(buffer_->getData() + old, 0, length - old);
}

void CBufferStream::write(const void* data, int size, IWriteBarrier*) {
  checkIOSize(size, "CBufferStream::write");
  checkOpen();
  if (size == 0) return;
  const int64_t end = position_ + size;
  if (end > static_cast<int64_t>(buffer_->getUsed())) resize(static_cast<size_t>(end));
  std::memcpy(buffer_->getData() + position_, data, static_cast<size_t>(size));
  position_ = end;
}

void CBufferStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) {
  if (data.getLength() > static_cast<size_t>(std::numeric_limits<int>::max())) {
    throw CInvalidArgError("CBufferStream::writeKeepBuffer", "Slice too large",
                           CProps().add("size", static_cast<uint64_t>(data.getLength())));
  }
  write(data.getData(), static_cast<int>(data.getLength()), barrier);
}

P<IWriteBarrier> CBufferStream::createWriteBarrier(IWriteBarrier*) {
  checkOpen();
  return P<IWriteBarrier>::adopt(new CDummyWriteBarrier());
}

void CBufferStream::flush() { checkOpen(); }

void CBufferStream::setLength(int64_t length) {
  checkOpen();
  if (length < 0)
    throw CInvalidArgError("CBufferStream::setLength", "Negative length", CProps().add("length", length));
  resize(static_cast<size_t>(length));
}

}  // namespace kx
