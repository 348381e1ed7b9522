// kx::CBufferStream: a kx::IIOStream over a growing kx::TBuffer.
//
// The buffer's used size is the stream's length. Writes land at the position
// and may overwrite or extend; when the allocation is too small it grows to
// `growth` times its size (or to what the write needs, if that is more), so a
// run of appends costs linear time. The buffer is shared, not copied: the
// caller may keep a reference and read the bytes while or after streaming,
// but must not change the buffer behind the stream's back.
//
// The stream has no file behind it: getURI gives the URI given to the
// constructor (empty by default), lockRange raises kx::CFileSystemError
// FSPROB_NOT_SUPPORTED, flush does nothing. writeKeepBuffer copies like write
// and keeps nothing. After close every operation but
// getURI and close raises kx::CIOError code 10. One thread at a time.
#pragma once

#include "kx/buffer.h"
#include "kx/stream.h"

namespace kx {

class CBufferStream final : public CBase, public IIOStream {
 public:
  // `buffer` must not be null; `growth` must be at least 1.0 (else
  // kx::CInvalidArgError). The position starts at 0.
  CBufferStream(P<TBuffer<unsigned char>> buffer, double growth, const CURI& uri = CURI());
  // Over a new, empty buffer that doubles.
  CBufferStream();

  // The buffer written to; stays valid after close.
  const P<TBuffer<unsigned char>>& getBuffer() const { return buffer_; }

  int64_t getLength() override;
  int64_t getPosition() override;
  CURI getURI() override { return uri_; }
  void seek(int64_t position) override;
  P<IStreamLock> lockRange(int64_t offset, int64_t length, LockType type) override;
  void close() override { closed_ = true; }

  void read(void* buffer, int size) override;
  int readLax(void* buffer, int size) override;
  int readAvailable(void* buffer, int size) override { return readLax(buffer, size); }
  bool waitReadable(int timeoutMilliseconds) override;
  bool isEndOfStream() override;
  int isEndOfStream_NonBlocking() override { return isEndOfStream() ? 1 : 0; }

  void write(const void* data, int size, IWriteBarrier* barrier) override;
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) override;
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override;
  void flush() override;
  // Shortens or extends (with zero bytes); the position is kept and may then
  // lie past the end, where a write fills the gap with zeros.
  void setLength(int64_t length) override;

 private:
  void checkOpen() const;
  void resize(size_t length);

  P<TBuffer<unsigned char>> buffer_;
  double growth_;
  CURI uri_;
  int64_t position_ = 0;
  bool closed_ = false;
};

}  // namespace kx
