#include "kx/data_stream.h"

namespace kx {

uint8_t CDataInStream::readUInt8() {
  unsigned char bytes[1];
  stream_.read(bytes, sizeof(bytes));
  return bytes[0];
}

uint16_t CDataInStream::readUInt16() {
  unsigned char bytes[2];
  stream_.read(bytes, sizeof(bytes));
  return static_cast<uint16_t>(loadLittleEndian(bytes, sizeof(bytes)));
}

uint32_t CDataInStream::readUInt32() {
  unsigned char bytes[4];
  stream_.read(bytes, sizeof(bytes));
  return static_cast<uint32_t>(loadLittleEndian(bytes, sizeof(bytes)));
}

uint64_t CDataInStream::readUInt64() {
  unsigned char bytes[8];
  stream_.read(bytes, sizeof(bytes));
  return loadLittleEndian(bytes, sizeof(bytes));
}

void CDataOutStream::writeUInt8(uint8_t value) { stream_.write(&value, 1, nullptr); }

void CDataOutStream::writeUInt16(uint16_t value) {
  unsigned char bytes[2];
  storeLittleEndian(bytes, value, sizeof(bytes));
  stream_.write(bytes, sizeof(bytes), nullptr);
}

void CDataOutStream::writeUInt32(uint32_t value) {
  unsigned char bytes[4];
  storeLittleEndian(bytes, value, sizeof(bytes));
  stream_.write(bytes, sizeof(bytes), nullptr);
}

void CDataOutStream::writeUInt64(uint64_t value) {
  unsigned char bytes[8];
  storeLittleEndian(bytes, value, sizeof(bytes));
  stream_.write(bytes, sizeof(bytes), nullptr);
}

}  // namespace kx
