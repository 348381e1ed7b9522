// Whole-file helpers over any kx::IFileSystem, for checking bytes on "disk".
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "kx/file_system.h"

namespace test {

inline std::vector<unsigned char> readFileBytes(kx::IFileSystem& fs, const kx::CURI& uri) {
  int flags = 0;
  kx::P<kx::IIOStream> stream = fs.openFile(uri, kx::IIOStream::ACCESS_READ, flags);
  std::vector<unsigned char> bytes(static_cast<size_t>(stream->getLength()));
  if (!bytes.empty()) stream->read(bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

inline void writeFileBytes(kx::IFileSystem& fs, const kx::CURI& uri, const std::vector<unsigned char>& bytes) {
  int flags = 0;
  kx::P<kx::IIOStream> stream = fs.openFile(uri, kx::IIOStream::ACCESS_READ_WRITE, flags);
  stream->setLength(0);
  if (!bytes.empty()) stream->write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
  stream->flush();
}

inline uint32_t le32(const std::vector<unsigned char>& bytes, size_t at) {
  return static_cast<uint32_t>(bytes.at(at)) | static_cast<uint32_t>(bytes.at(at + 1)) << 8 |
         static_cast<uint32_t>(bytes.at(at + 2)) << 16 | static_cast<uint32_t>(bytes.at(at + 3)) << 24;
}

inline uint64_t le64(const std::vector<unsigned char>& bytes, size_t at) {
  return static_cast<uint64_t>(le32(bytes, at)) | static_cast<uint64_t>(le32(bytes, at + 4)) << 32;
}

inline uint16_t le16(const std::vector<unsigned char>& bytes, size_t at) {
  return static_cast<uint16_t>(bytes.at(at) | bytes.at(at + 1) << 8);
}

inline void putLE(std::vector<unsigned char>& bytes, size_t at, uint64_t value, int width) {
  for (int i = 0; i < width; ++i) bytes.at(at + i) = static_cast<unsigned char>(value >> (8 * i));
}

}  // namespace test
