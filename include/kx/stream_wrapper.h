// CStreamWrapper: a stream that hands every call to a target stream, the
// base of streams that change a few operations of another one (the confined
// file system's, the test file systems').
#pragma once

#include "kx/file_identity.h"
#include "kx/stream.h"

namespace kx {

// Forwards all of IIOStream and keeps nothing of its own: a kept slice is
// the target's to keep; flush and close go on to it, and the last reference
// releases it. IFileIdentity goes to the target when the target has it,
// else checkSameFile says -1 (can't tell).
class CStreamWrapper : public CBase, public IIOStream, public IFileIdentity {
 public:
  // Takes a reference to `target`, which must not be null.
  explicit CStreamWrapper(const P<IIOStream>& target) : target_(target) {}

  IIOStream* getTarget() const { return target_.get(); }

  int64_t getLength() override { return target_->getLength(); }
  int64_t getPosition() override { return target_->getPosition(); }
  CURI getURI() override { return target_->getURI(); }
  void seek(int64_t position) override { target_->seek(position); }
  P<IStreamLock> lockRange(int64_t offset, int64_t length, LockType type) override {
    return target_->lockRange(offset, length, type);
  }
  void close() override { target_->close(); }

  void read(void* buffer, int size) override { target_->read(buffer, size); }
  int readLax(void* buffer, int size) override { return target_->readLax(buffer, size); }
  int readAvailable(void* buffer, int size) override { return target_->readAvailable(buffer, size); }
  bool waitReadable(int timeoutMilliseconds) override { return target_->waitReadable(timeoutMilliseconds); }
  bool isEndOfStream() override { return target_->isEndOfStream(); }
  int isEndOfStream_NonBlocking() override { return target_->isEndOfStream_NonBlocking(); }

  void write(const void* data, int size, IWriteBarrier* barrier) override {
    target_->write(data, size, barrier);
  }
  void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                       IWriteBarrier* barrier) override {
    target_->writeKeepBuffer(data, barrier);
  }
  P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override {
    return target_->createWriteBarrier(previous);
  }
  void flush() override { target_->flush(); }
  void setLength(int64_t length) override { target_->setLength(length); }

  int checkSameFile(const CURI& uri) override {
    auto* identity = dynamic_cast<IFileIdentity*>(target_.get());
    return identity ? identity->checkSameFile(uri) : -1;
  }

 private:
  P<IIOStream> target_;
};

}  // namespace kx
