// Stream interfaces of the base library.
//
// General contract: streams are used by one thread at a time. Positions and
// lengths are bytes. Errors are kx::CError and its subclasses; a stream that
// raises keeps its position unless the operation says otherwise.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/uri.h"

namespace kx {

// A lock on a byte range of a file, held while the object lives.
class IStreamLock : public virtual IBase {};

// Orders writes: data written with a barrier reaches the file after the data
// written before the barrier was created.
class IWriteBarrier : public virtual IBase {};

// A barrier that orders nothing by itself; for streams that flush instead.
class CDummyWriteBarrier final : public CBase, public IWriteBarrier {};

class IStreamBase : public virtual IBase {
 public:
  enum LockType { LOCK_SHARED = 1, LOCK_EXCLUSIVE = 2 };

  virtual int64_t getLength() = 0;
  virtual int64_t getPosition() = 0;
  virtual CURI getURI() = 0;
  // Any position from 0 to the length; beyond it raises kx::CIOError code 7.
  virtual void seek(int64_t position) = 0;
  // Locks `length` bytes from `offset`; a length of 0 reaches to any end,
  // also past the file's current end. An exclusive lock needs a writable
  // stream. The lock is held until the returned object goes. Raises
  // kx::CFileSystemError: FSPROB_LOCKED when another open holds a conflicting
  // lock, another problem when the stream can't lock.
  virtual P<IStreamLock> lockRange(int64_t offset, int64_t length, LockType type) = 0;
  // Releases the file; every later operation but getURI and close raises
  // kx::CIOError code 10. A second close does nothing.
  virtual void close() = 0;
};

class IInStream : public virtual IStreamBase {
 public:
  // Reads exactly `size` bytes or raises (kx::CIOError code 4 at the end of
  // the stream; the position then stays where it was).
  virtual void read(void* buffer, int size) = 0;
  // Reads up to `size` bytes; returns how many, 0 only at the end.
  virtual int readLax(void* buffer, int size) = 0;
  // Reads what is available without waiting; for files the same as readLax.
  virtual int readAvailable(void* buffer, int size) = 0;
  virtual bool waitReadable(int timeoutMilliseconds) = 0;
  virtual bool isEndOfStream() = 0;
  // 1 at the end, 0 before it, -1 when that can't be told without waiting.
  virtual int isEndOfStream_NonBlocking() = 0;
};

class IAlignedStreamBase : public virtual IStreamBase {
 public:
  virtual int getPositionAlign() = 0;
  virtual int getBufferAlign() = 0;
  virtual int getBestPerformancePositionAlign() = 0;
};

class IAlignedInStream : public virtual IInStream, public virtual IAlignedStreamBase {};

class IOutStream : public virtual IStreamBase {
 public:
  // Writes all `size` bytes at the position and moves it on; a write at the
  // end makes the stream longer. `barrier` may be null. The stream is done
  // with `data` when the call returns: the caller may change or free it then.
  virtual void write(const void* data, int size, IWriteBarrier* barrier) = 0;
  // Like write, but instead of copying the bytes the stream may keep the slice,
  // and with it a reference to its buffer, and read the bytes later: until
  // they reached the file, at the latest when a flush or close of this stream
  // returns or when its last reference goes. Until then the caller must not
  // change them. The slice alone must keep its buffer alive, so the buffer
  // must be held through a kx::P that owns it (kx::create); a member or stack
  // buffer given out by P::share goes through write instead (see kx::TBuffer).
  virtual void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) = 0;
  virtual P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) = 0;
  // Brings everything written so far to the file and, for a file on a device,
  // to stable storage: once flush returns, the data and the length survive a
  // crash of the process and a loss of power, as far as the device keeps its
  // own promises. Raises the error of the write or the device; what was not
  // confirmed may then be lost.
  virtual void flush() = 0;
  virtual void setLength(int64_t length) = 0;
};

class IIOStream : public virtual IInStream, public virtual IOutStream {
 public:
  enum Access { ACCESS_READ = 1, ACCESS_WRITE = 2, ACCESS_READ_WRITE = 3 };
};

}  // namespace kx
