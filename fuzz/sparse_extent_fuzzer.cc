// Opens any bytes as a sparse extent file, reads its first grains plainly and
// in prepared form, and writes one grain back. Damaged input must end in a
// kx::CError, never in a crash, a hang or an allocation beyond the file's size.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kx/error.h"
#include "kx/memory_file_system.h"
#include "zarn/low_level_file_stream.h"
#include "zarn/sparse_extent_file.h"

namespace {

const kx::CURI kExtent(kx::String("file:///f.vmdk"));
const kx::CURI kDescriptor(kx::String("file:///d.vmdk"));

kx::P<zarn::CVMDKSparseExtentFile> open(kx::CMemoryFileSystem& fs, kx::IIOStream::Access access,
                                        zarn::CVMDKContentIDUpdater* updater) {
  auto stream = zarn::openVMDKFileStream(&fs, kExtent, access);
  auto cache = kx::create<zarn::CVMDKGrainTableCache>(64);
  return kx::create<zarn::CVMDKSparseExtentFile>(stream.get(), access, 0, 1, cache.get(), nullptr, updater, nullptr,
                                                 kx::TCryptBuffer<unsigned char>(), kx::TBuffer<unsigned char>());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  auto fs = kx::create<kx::CMemoryFileSystem>();
  fs->setFileData(kExtent, data, size);
  std::vector<unsigned char> descriptor(512, 0);
  std::memcpy(descriptor.data(), "CID=1\n", 6);
  fs->setFileData(kDescriptor, descriptor.data(), descriptor.size());
  try {
    auto extent = open(*fs, kx::IIOStream::ACCESS_READ, nullptr);
    const int64_t grain = extent->getGrainSizeSectors() * 512;
    std::vector<unsigned char> out(static_cast<size_t>(grain));
    kx::TBuffer<unsigned char> prepared;
    for (int64_t g = 0; g < 16; ++g) {
      try {
        extent->seek(g * grain);
        extent->read(out.data(), static_cast<int>(grain));
        extent->seek(g * grain);
        extent->readPreparedGrainData(prepared);
      } catch (const kx::CError&) {
      }
    }
  } catch (const kx::CError&) {
    return 0;
  }
  try {
    auto updater = kx::create<zarn::CVMDKContentIDUpdater>(fs.get(), kDescriptor, kx::create<zarn::CVMDKDescriptor>().get());
    auto extent = open(*fs, kx::IIOStream::ACCESS_READ_WRITE, updater.get());
    std::vector<unsigned char> grain(static_cast<size_t>(extent->getGrainSizeSectors() * 512), 0x5A);
    extent->write(grain.data(), static_cast<int>(grain.size()));
    extent->flushChanges();
  } catch (const kx::CError&) {
  }
  return 0;
}
