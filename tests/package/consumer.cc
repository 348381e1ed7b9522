// Builds against the installed headers only and makes a small extent file.
#include <kx/memory_file_system.h>
#include <kx/parse.h>
#include <zarn/empty_extent_file.h>

#include <cstdio>

int main() {
  auto fs = kx::create<kx::CMemoryFileSystem>();
  const kx::CURI uri(kx::String("file:///disk.vmdk"));
  kx::TBuffer<unsigned char> zeros(4096);
  zarn::createEmptyVMDKSparseExtentFile(fs.get(), uri, false, 512, 128, zeros, nullptr, 0, {});
  int flags = 0;
  const long long length = fs->openFile(uri, kx::IIOStream::ACCESS_READ, flags)->getLength();
  std::printf("%lld\n", length);
  return length == 128 * 512 ? 0 : 1;
}
