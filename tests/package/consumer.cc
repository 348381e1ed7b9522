// The README's example, built against the installed headers and library only.
// README.md shows the lines between the two marker comments as they stand
// here; the test suite holds the two to the same text.
// README example begins
#include <kx/local_file_system.h>
#include <kx/path.h>
#include <zarn/disk.h>

#include <string>

// Makes a 100 MiB compressed, encrypted disk in `folder`, writes across a
// grain border, reopens it read-only and reads the bytes back; then makes a
// differencing child, encrypted with the same password as its parent, that
// reads through it. Errors are kx::CError exceptions.
bool runExample(const std::string& folder) {
  auto fs = kx::create<kx::CLocalFileSystem>();
  const kx::CURI uri(kx::CUnixPath(kx::String::FromUTF8(folder + "/disk.vmdk")), true);
  const std::string text = "zarn keeps this across a grain border";
  {
    // 100 MiB, password "secret", compressed, default level, one file, no parent.
    auto disk = zarn::CVMDKDisk::create(fs.get(), uri, 100 << 20, "secret", true, -1, -1, "", 0xFFFFFFFF, false);
    disk->seek(65536 - 10);
    disk->write(text.data(), static_cast<int>(text.size()));
  }  // the last reference flushes and unlocks

  auto disk = kx::create<zarn::CVMDKDisk>(fs.get(), uri, kx::IIOStream::ACCESS_READ, "secret");
  char back[64] = {};
  disk->seek(65536 - 10);
  disk->read(back, static_cast<int>(text.size()));

  // A child records its parent's content ID and reads through it. The child
  // of an encrypted disk gets the same password: a grain it copies from the
  // parent would otherwise be stored in clear.
  const uint32_t parentCID = disk->getDescriptor()->getContentID();
  disk = nullptr;
  auto child = zarn::CVMDKDisk::create(fs.get(), uri.getParent() << "child.vmdk", 100 << 20, "secret", true, -1,
                                       -1, uri.getName(), parentCID, false);
  char fromChild[64] = {};
  child->seek(65536 - 10);
  child->read(fromChild, static_cast<int>(text.size()));
  return text == back && text == fromChild;
}
// README example ends

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  try {
    const bool same = runExample(argv[1]);
    std::printf("the disk and its child read back %s\n", same ? "what was written" : "something else");
    return same ? 0 : 1;
  } catch (const kx::CError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
