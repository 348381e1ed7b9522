// Buffering streams over a file stream.
//
// kx::COptimizingInStream reads ahead from a target kx::IInStream;
// kx::COptimizingIOStream adds a write buffer over a target kx::IIOStream. They
// turn the many small, mostly sequential reads and writes of format code
// (header fields, markers, table words, padding) into few large target calls,
// and pass large ones through without a copy.
//
// What a caller can rely on:
// - getPosition is the position plus the count of every read and write, also
//   while the data is only buffered; getLength includes buffered data.
// - A read sees every byte written before it, flushed or not.
// - Nothing handed to write or writeKeepBuffer is kept past the call: it is
//   copied into the write buffer or given to the target's write (which keeps
//   nothing either) before the call returns.
// - The target sees the buffered bytes by flush, by close and at the latest
//   when the last reference goes; writes reach it in the order they were made
//   (a later write to the same bytes wins), so write barriers order nothing
//   that isn't ordered already.
// - The target's length and content are cached: while this stream lives it
//   must be the target's only user. Its position is tracked, and the target is
//   seeked only when it isn't where the next call needs it.
//
// Reference counting: both classes start with one reference like every
// kx::CBase and hold one reference on their target. One thread at a time.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/stream.h"

namespace kx {

class COptimizingInStream : public CBase, public virtual IAlignedInStream {
 public:
  static constexpr int kDefaultBufferSizeBytes = 1 << 20;
  // The position alignment at which the target works best (a page).
  static constexpr int kBestPerformanceAlignBytes = 4096;

  // Takes its own reference on `target`, whose position becomes this stream's
  // position. `bufferSizeBytes` is the largest read-ahead; reads of that size
  // or more go to the caller's memory directly. The read-ahead buffer is
  // allocated at the first read that needs it, 64 KiB first and the whole
  // size when the read-ahead first grows beyond that. Raises
  // kx::CInvalidArgError for a null target or a size below 1, and whatever the
  // target's getLength and getPosition raise.
  explicit COptimizingInStream(P<IInStream> target, int bufferSizeBytes = kDefaultBufferSizeBytes);
  ~COptimizingInStream() override;

  COptimizingInStream(const COptimizingInStream&) = delete;
  COptimizingInStream& operator=(const COptimizingInStream&) = delete;

  // IStreamBase. getURI forwards to the target and works after close as well;
  // lockRange forwards to the target.
  int64_t getLength() override;
  int64_t getPosition() override;
  CURI getURI() override;
  // 0 to getLength(); anything else raises kx::CIOError code 7 and keeps the
  // position. Never touches the target.
  void seek(int64_t position) override;
  P<IStreamLock> lockRange(int64_t offset, int64_t length, LockType type) override;
  // Closes the target and drops the buffers. Afterwards every operation but
  // getURI and close raises kx::CIOError code 10.
  void close() override;

  // IInStream. A failing target leaves this stream's position where it was.
  // A negative size raises kx::CInvalidArgError.
  void read(void* buffer, int size) override;
  int readLax(void* buffer, int size) override;
  int readAvailable(void* buffer, int size) override;
  // A file is always readable: true at once.
  bool waitReadable(int timeoutMilliseconds) override;
  bool isEndOfStream() override;
  int isEndOfStream_NonBlocking() override;

  // IAlignedStreamBase: any position and any buffer address work.
  int getPositionAlign() override;
  int getBufferAlign() override;
  int getBestPerformancePositionAlign() override;

 protected:
  // Raises kx::CIOError code 10 after close.
  void checkOpen() const;
  // Copies `size` bytes that now stand at `position` into the read-ahead
  // buffer where it holds that range, so it stays equal to the content.
  void updateReadBuffer(int64_t position, const unsigned char* data, int size);
  void invalidateReadBuffer() { readBufferBytes_ = 0; }
  // Drops what the read-ahead buffer holds at or beyond `length`.
  void truncateReadBuffer(int64_t length);
  // The target's position, seeking it only if it is elsewhere.
  void seekTarget(int64_t position);
  // Marks the target's position unknown after a failed call.
  void forgetTargetPosition() { targetPosition_ = -1; }
  int64_t getPendingEnd() const { return pendingStart_ + pendingBytes_; }
  // Closes the target and marks this stream closed; the target's error, if
  // any, goes on to the caller.
  void closeTarget();

  const P<IInStream> target_;
  const int bufferSizeBytes_;
  int64_t position_ = 0;
  // Where the target's position is, -1 when that isn't known.
  int64_t targetPosition_ = -1;
  // The target's length as far as this stream has made it.
  int64_t targetLengthBytes_ = 0;
  bool closed_ = false;

  // Bytes written but not yet at the target: one contiguous run starting at
  // pendingStart_. Only kx::COptimizingIOStream fills it; the read path lays
  // it over what it gets from the target.
  TBuffer<unsigned char> writeBuffer_;
  int64_t pendingStart_ = 0;
  int pendingBytes_ = 0;

 private:
  // Reads up to `size` bytes at the position into `out`; returns the count.
  // Doesn't move the position.
  int readAt(unsigned char* out, int size);
  // Reads [position, position + size) from the target, where the target holds
  // it, and lays the pending run over it. The range lies within getLength().
  void readContentAt(int64_t position, unsigned char* out, int size);
  void fillReadBuffer(int64_t position, int wantedBytes);

  TBuffer<unsigned char> readBuffer_;
  int64_t readBufferStart_ = 0;
  int readBufferBytes_ = 0;
  // How much the next miss reads: it grows while misses follow each other.
  int readAheadBytes_;
};

class COptimizingIOStream : public COptimizingInStream, public virtual IIOStream {
 public:
  // Takes its own reference on `target`. `bufferSizeBytes` is also the size of
  // the write buffer, allocated at the first write that it takes; writes of
  // kDirectWriteMinBytes or more (or the buffer's size, if less), and kept
  // slices of kDirectKeepBufferMinBytes or more, go to the target without a
  // copy.
  explicit COptimizingIOStream(P<IIOStream> target, int bufferSizeBytes = kDefaultBufferSizeBytes);
  // Writes buffered data back to the target (not the target's flush); an error
  // goes to kx::onExceptionInDestructorIgnored.
  ~COptimizingIOStream() override;

  // A kept slice this long is written from the caller's buffer: the copy
  // would cost more than the extra target call.
  static constexpr int kDirectKeepBufferMinBytes = 64 * 1024;
  // So is a plain write this long: a whole grain goes to the file in one call
  // from where it is, the file's page cache doing the gathering.
  static constexpr int kDirectWriteMinBytes = 64 * 1024;

  // Writes buffered data, then closes the target, also when the write fails:
  // the error goes on to the caller and the unwritten data is dropped.
  void close() override;

  // IOutStream. A write may start anywhere from 0 to the length. A failed
  // write raises the target's error and keeps the position; the bytes of its
  // range are then undefined. A negative size raises kx::CInvalidArgError.
  void write(const void* data, int size, IWriteBarrier* barrier) override;
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) override;
  // Writes are never reordered, so a barrier that orders nothing is enough.
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override;
  // Writes buffered data in order, then calls the target's flush, which for a
  // local file waits for the device. On failure the data stays buffered and a
  // later flush tries again.
  void flush() override;
  // Writes buffered data first. A position beyond the new length moves back
  // to it.
  void setLength(int64_t length) override;

 private:
  void writeImpl(const unsigned char* data, int size, bool direct);
  void writePending();
  void writeTargetAt(int64_t position, const unsigned char* data, int size);

  const P<IIOStream> ioTarget_;
};

}  // namespace kx
