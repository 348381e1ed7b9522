// The README's example, built against the installed headers and library only.
// Makes the empty extent of a 100 MiB monolithic sparse disk with its
// descriptor inside, then reopens it and gives it a new content ID.
#include <kx/local_file_system.h>
#include <kx/path.h>
#include <zarn/descriptor.h>
#include <zarn/descriptor_accessor.h>
#include <zarn/empty_extent_file.h>
#include <zarn/extent_info.h>
#include <zarn/low_level_file_stream.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  auto fs = kx::create<kx::CLocalFileSystem>();
  const kx::CURI uri(kx::CUnixPath(kx::String::FromUTF8(argv[1])), true);

  // 1600 grains of 128 sectors (64 KiB) each: 100 MiB.
  zarn::CVMDKDescriptor descriptor;
  descriptor.setVersion(1);
  descriptor.setContentID(0xfffffffe);
  descriptor.setParentContentID(0xffffffff);  // no parent
  descriptor.setCreateType("monolithicSparse");
  auto extent = kx::create<zarn::CVMDKExtentInfo>("RW", 1600 * 128, "SPARSE", uri.getName(), -1);
  descriptor.addExtentEntry(extent.get());
  kx::TBuffer<unsigned char> zeros(65536);  // serves all padding; bigger means fewer writes
  zarn::createEmptyVMDKSparseExtentFile(fs.get(), uri, false, 1600, 128, zeros, &descriptor, 20, {});

  // Read the embedded descriptor back, change the content ID, write it in place.
  auto stream = zarn::openVMDKFileStream(fs.get(), uri, kx::IIOStream::ACCESS_READ_WRITE);
  auto accessor = kx::create<zarn::CVMDKDescriptorAccessor>(stream.get(), kx::IIOStream::ACCESS_READ_WRITE);
  const uint32_t cid = accessor->changeContentID();
  accessor->storeDescriptor(true);

  std::printf("%s: %lld bytes, CID %08x, %s\n", static_cast<const char*>(uri.toString(true).utf8_str()),
              static_cast<long long>(stream->getLength()), cid,
              static_cast<const char*>(accessor->getDescriptor()->getCreateType().utf8_str()));
  return stream->getLength() == 65536 ? 0 : 1;
}
