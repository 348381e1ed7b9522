// Opens any set of files as a disk (descriptor, extents, a parent) from an
// in-memory file system, reads it grain by grain plainly and in prepared form,
// takes its space accounting, then writes into it and reads it again.
// Damaged input must end in a kx::CError, never in a crash, a hang or an
// allocation beyond what the files justify.
//
// Input: the packed files of fuzz/packed_files.h; fuzz/make_disk_seeds.sh
// packs disks made by zarn-img this way.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/packed_files.h"
#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "zarn/disk.h"

namespace {

void readAll(zarn::CVMDKDisk& disk) {
  const int64_t grain = disk.getGrainSizeBytes();
  const int64_t size = disk.getSizeBytes();
  if (grain <= 0 || grain > (1 << 24)) return;
  std::vector<unsigned char> out(static_cast<size_t>(grain));
  kx::TBuffer<unsigned char> prepared;
  // A disk may claim far more grains than the input holds: a spread of them.
  const int64_t grains = (size + grain - 1) / grain;
  const int64_t step = grains > 64 ? grains / 64 : 1;
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
  // Files of 256 KiB hold a head and a few grains: enough to reach every
  // path, and fast under the sanitizers.
  const kx::CURI main = fuzz::unpackFiles(data, size, *fs, 256 << 10);
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
