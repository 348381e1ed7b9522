// Opens any set of files as a disk (descriptor, extents, a parent) from an
// in-memory file system, reads it grain by grain plainly and in prepared form,
// takes its space accounting, then writes into it and reads it again.
// Damaged input must end in a kx::CError, never in a crash, a hang or an
// allocation beyond what the files justify.
//
// Input: files one after another, each
//   name, a zero byte, the file's length (u32 LE), the count of pieces (u16 LE),
//   and per piece its offset (u32 LE), its length (u16 LE) and its bytes,
// so that the large runs of zeros of a real disk cost nothing. The first file
// is the disk's main file. fuzz/make_disk_seeds.sh packs disks made by
// zarn-img this way.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "zarn/disk.h"

namespace {

constexpr uint32_t kMaxFileBytes = 1u << 20;
constexpr int kMaxFiles = 8;

struct CReader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  bool take(void* out, size_t n) {
    if (size - at < n) return false;
    std::memcpy(out, data + at, n);
    at += n;
    return true;
  }
  template <class T>
  bool le(T& value) {
    unsigned char bytes[sizeof(T)];
    if (!take(bytes, sizeof bytes)) return false;
    value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) value |= static_cast<T>(static_cast<T>(bytes[i]) << (8 * i));
    return true;
  }
};

// The files of the input, in the memory file system; the main file's URI, or
// an empty one when there is none.
kx::CURI unpack(const uint8_t* data, size_t size, kx::CMemoryFileSystem& fs) {
  CReader in{data, size};
  kx::CURI main;
  for (int files = 0; files < kMaxFiles && in.at < size; ++files) {
    std::string name;
    char c;
    while (in.take(&c, 1) && c != 0 && name.size() < 64) name += c;
    uint32_t length = 0;
    uint16_t pieces = 0;
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos || !in.le(length) ||
        !in.le(pieces)) {
      break;
    }
    std::vector<unsigned char> bytes(std::min(length, kMaxFileBytes), 0);
    for (uint16_t p = 0; p < pieces; ++p) {
      uint32_t offset = 0;
      uint16_t count = 0;
      if (!in.le(offset) || !in.le(count) || size - in.at < count) break;
      for (uint16_t i = 0; i < count; ++i) {
        if (offset + uint64_t{i} < bytes.size()) bytes[offset + i] = data[in.at + i];
      }
      in.at += count;
    }
    try {
      const kx::CURI uri = kx::CURI(kx::String("file:///d/")) << kx::String::FromUTF8(name.c_str());
      fs.setFileData(uri, bytes.data(), bytes.size());
      if (main.isEmpty()) main = uri;
    } catch (const kx::CError&) {
      break;  // a name no file can have
    }
  }
  return main;
}

void readAll(zarn::CVMDKDisk& disk) {
  const int64_t grain = disk.getGrainSizeBytes();
  const int64_t size = disk.getSizeBytes();
  if (grain <= 0 || grain > (1 << 24)) return;
  std::vector<unsigned char> out(static_cast<size_t>(grain));
  kx::TBuffer<unsigned char> prepared;
  // A disk may claim far more grains than the input holds: a spread of them.
  const int64_t grains = (size + grain - 1) / grain;
  const int64_t step = grains > 16 ? grains / 16 : 1;
  for (int64_t g = 0; g < grains; g += step) {
    try {
      disk.seek(g * grain);
      if (!disk.isGrainWritten()) continue;
      disk.seek(g * grain);
      disk.read(out.data(), static_cast<int>(std::min(grain, size - g * grain)));
      if ((g + 1) * grain <= size) {
        disk.seek(g * grain);
        disk.readPreparedGrainData(prepared);
      }
    } catch (const kx::CError&) {
    }
  }
  try {
    disk.gatherSpaceInfo();
  } catch (const kx::CError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1 << 20)) return 0;
  auto fs = kx::create<kx::CMemoryFileSystem>();
  const kx::CURI main = unpack(data, size, *fs);
  if (main.isEmpty()) return 0;
  try {
    auto disk = kx::create<zarn::CVMDKDisk>(fs.get(), main, kx::IIOStream::ACCESS_READ, "p");
    readAll(*disk);
  } catch (const kx::CError&) {
    return 0;
  }
  try {
    auto disk = kx::create<zarn::CVMDKDisk>(fs.get(), main, kx::IIOStream::ACCESS_READ_WRITE, "p");
    std::vector<unsigned char> bytes(static_cast<size_t>(disk->getGrainSizeBytes()) + 3, 0x5A);
    if (disk->getSizeBytes() >= static_cast<int64_t>(bytes.size()) + 100) {
      disk->seek(100);
      disk->write(bytes.data(), static_cast<int>(bytes.size()));
    }
    disk->flushChanges();
  } catch (const kx::CError&) {
  }
  try {
    auto disk = kx::create<zarn::CVMDKDisk>(fs.get(), main, kx::IIOStream::ACCESS_READ, "p");
    readAll(*disk);
  } catch (const kx::CError&) {
  }
  return 0;
}
