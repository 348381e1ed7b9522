// kx::CDataInStream and kx::CDataOutStream: fixed-size integers in
// little-endian order on top of a stream.
//
// Each value is one read or one write call on the stream, never a call per
// byte, so they cost nothing extra over a buffering stream and stay cheap on
// an unbuffered one. They hold a plain reference: the stream must outlive them.
// Errors of the stream pass through unchanged; a read past the end raises the
// stream's kx::CIOError code 4 and consumes nothing.
#pragma once

#include <cstdint>

#include "kx/stream.h"

namespace kx {

class CDataInStream {
 public:
  explicit CDataInStream(IInStream& stream) : stream_(stream) {}

  uint8_t readUInt8();
  uint16_t readUInt16();
  uint32_t readUInt32();
  uint64_t readUInt64();
  int64_t readInt64() { return static_cast<int64_t>(readUInt64()); }
  // Exactly `size` bytes, as IInStream::read.
  void read(void* buffer, int size) { stream_.read(buffer, size); }

  IInStream& getStream() const { return stream_; }

 private:
  IInStream& stream_;
};

class CDataOutStream {
 public:
  explicit CDataOutStream(IOutStream& stream) : stream_(stream) {}

  void writeUInt8(uint8_t value);
  void writeUInt16(uint16_t value);
  void writeUInt32(uint32_t value);
  void writeUInt64(uint64_t value);
  void writeInt64(int64_t value) { writeUInt64(static_cast<uint64_t>(value)); }
  // All `size` bytes, as IOutStream::write without a barrier.
  void write(const void* data, int size) { stream_.write(data, size, nullptr); }

  IOutStream& getStream() const { return stream_; }

 private:
  IOutStream& stream_;
};

// Little-endian encoding into and out of memory, for callers that assemble a
// record before a single write.
inline void storeLittleEndian(void* target, uint64_t value, int bytes) {
  auto* out = static_cast<unsigned char*>(target);
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

inline uint64_t loadLittleEndian(const void* source, int bytes) {
  const auto* in = static_cast<const unsigned char*>(source);
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(in[i]) << (8 * i);
  return value;
}

}  // namespace kx
