// The README's example, built against the installed headers and library only.
// Makes a 100 MiB compressed, encrypted disk, writes into it across grains,
// drops it, opens it again read-only and reads the bytes back; then a
// differencing child that reads through it.
#include <kx/local_file_system.h>
#include <kx/path.h>
#include <zarn/disk.h>

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  auto fs = kx::create<kx::CLocalFileSystem>();
  const kx::CURI uri(kx::CUnixPath(kx::String::FromUTF8(argv[1])), true);
  const std::string text = "zarn keeps this across a grain border";

  try {
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

    // A child records its parent's content ID and reads through it.
    const kx::CURI childURI = uri.getParent() << "child.vmdk";
    const uint32_t parentCID = disk->getDescriptor()->getContentID();
    disk = nullptr;
    auto child = zarn::CVMDKDisk::create(fs.get(), childURI, 100 << 20, "secret", true, -1, -1, uri.getName(),
                                         parentCID, false);
    char fromChild[64] = {};
    child->seek(65536 - 10);
    child->read(fromChild, static_cast<int>(text.size()));
    std::printf("%s and its child read: %s\n", static_cast<const char*>(uri.toString(true).utf8_str()), fromChild);
    return text == back && text == fromChild ? 0 : 1;
  } catch (const kx::CError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
