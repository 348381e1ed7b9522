// test::CStreamWrapper: a stream that hands every call to a target stream,
// the base of the streams of the test file systems.
#pragma once

#include "kx/file_identity.h"
#include "kx/stream.h"

namespace test {

// Forwards all of kx::IIOStream and keeps nothing of its own: a kept slice is
// the target's to keep; flush and close go on to it, and the last reference
// releases it. kx::IFileIdentity goes to the target when the target has it,
// else checkSameFile says -1 (can't tell).
class CStreamWrapper : public kx::CBase, public kx::IIOStream, public kx::IFileIdentity {
 public:
  // Takes a reference to `target`, which must not be null.
  explicit CStreamWrapper(const kx::P<kx::IIOStream>& target) : target_(target) {}

  kx::IIOStream* getTarget() const { return target_.get(); }

  int64_t getLength() override { return target_->getLength(); }
  int64_t getPosition() override { return target_->getPosition(); }
  kx::CURI getURI() override { return target_->getURI(); }
  void seek(int64_t position) override { target_->seek(position); }
  kx::P<kx::IStreamLock> lockRange(int64_t offset, int64_t length, LockType type) override {
    return target_->lockRange(offset, length, type);
  }
  void close() override { target_->close(); }

  void read(void* buffer, int size) override { target_->read(buffer, size); }
  int readLax(void* buffer, int size) override { return target_->readLax(buffer, size); }
  int readAvailable(void* buffer, int size) override { return target_->readAvailable(buffer, size); }
  bool waitReadable(int timeoutMilliseconds) override { return target_->waitReadable(timeoutMilliseconds); }
  bool isEndOfStream() override { return target_->isEndOfStream(); }
  int isEndOfStream_NonBlocking() override { return target_->isEndOfStream_NonBlocking(); }

  void write(const void* data, int size, kx::IWriteBarrier* barrier) override {
    target_->write(data, size, barrier);
  }
  void writeKeepBuffer(const kx::TConstBufferSlice<unsigned char>& data,
                       kx::IWriteBarrier* barrier) override {
    target_->writeKeepBuffer(data, barrier);
  }
  kx::P<kx::IWriteBarrier> createWriteBarrier(kx::IWriteBarrier* previous) override {
    return target_->createWriteBarrier(previous);
  }
  void flush() override { target_->flush(); }
  void setLength(int64_t length) override { target_->setLength(length); }

  int checkSameFile(const kx::CURI& uri) override {
    auto* identity = dynamic_cast<kx::IFileIdentity*>(target_.get());
    return identity ? identity->checkSameFile(uri) : -1;
  }

 private:
  kx::P<kx::IIOStream> target_;
};

}  // namespace test
