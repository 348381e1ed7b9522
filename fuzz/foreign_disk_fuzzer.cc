// Opens any set of files as a foreign disk (descriptor, sparse, flat and zero
// extents, parents of both kinds) from an in-memory file system and reads it:
// a spread of grains plainly and in prepared form (unpacked again), their
// allocation and depth, the chain's files. Damaged input must end in a
// kx::CError, never in a crash, a hang or an allocation beyond what the files
// justify.
//
// Input: the packed files of fuzz/packed_files.h; fuzz/make_foreign_disk_seeds.sh
// packs disks made by qemu-img this way.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/packed_files.h"
#include "kx/error.h"
#include "kx/log.h"
#include "kx/memory_file_system.h"
#include "zarn/foreign_disk.h"

namespace {

// Filling and copying files of the harness's usual 4 MiB took most of each
// run; the seeds need 128 KiB, and every offset beyond a file is refused
// alike whatever its size.
constexpr uint32_t kMaxFileBytes = 256u << 10;

void readSpread(zarn::CVMDKForeignDisk& disk) {
  const int64_t grain = disk.getGrainSizeBytes();
  const int64_t size = disk.getSizeBytes();
  if (grain <= 0 || grain > (1 << 24)) return;
  std::vector<unsigned char> out(static_cast<size_t>(grain));
  kx::TBuffer<unsigned char> prepared, aux;
  kx::P<zarn::CVMDKDataPreparer> preparer = disk.createDataPreparer();
  // A disk may claim far more grains than the input holds: a spread of them.
  const int64_t grains = (size + grain - 1) / grain;
  const int64_t step = grains > 64 ? grains / 64 : 1;
  for (int64_t g = 0; g < grains; g += step) {
    try {
      disk.seek(g * grain);
      disk.getAllocationDepth();
      disk.seek(g * grain);
      disk.read(out.data(), static_cast<int>(std::min(grain, size - g * grain)));
      if ((g + 1) * grain <= size) {
        disk.seek(g * grain);
        disk.readPreparedGrainData(prepared);
        preparer->unprepareGrainData(&prepared, &aux);
      }
    } catch (const kx::CError&) {
    }
  }
  for (int depth = 1; depth < 4; ++depth) {
    try {
      disk.getChainDiskURI(depth);
    } catch (const kx::CError&) {
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1 << 20)) return 0;
  // Scans of damaged streams warn; a line per run would only slow the fuzzer.
  static const bool quiet = [] {
    kx::setLogSink([](kx::LogLevel, const kx::String&, const std::exception*) {});
    return true;
  }();
  (void)quiet;
  auto fs = kx::create<kx::CMemoryFileSystem>();
  const kx::CURI main = fuzz::unpackFiles(data, size, *fs, kMaxFileBytes);
  if (main.isEmpty()) return 0;
  try {
    auto disk = kx::create<zarn::CVMDKForeignDisk>(fs.get(), main, "p");
    disk->getForeignReason();
    disk->getExtentFiles();
    disk->getParentDiskMainURI();
    readSpread(*disk);
  } catch (const kx::CError&) {
  }
  return 0;
}
