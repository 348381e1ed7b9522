// Reads any text as a URI, as a Unix path and as a Windows path. What parses
// must print back to itself, normalize to a fixed point, resolve against a
// base, and show one name in every view: getName, getParent, operator<<,
// getPath and the bytes that a local file system would be given.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "kx/error.h"
#include "kx/path.h"
#include "kx/uri.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

// The first byte picks how the rest becomes text: UTF-8 (Latin-1 where it
// isn't), or code points of 21 bits each, which reach surrogates and values
// above U+10FFFF.
kx::String toText(const uint8_t* data, size_t size) {
  if (size == 0) return kx::String();
  const char* bytes = reinterpret_cast<const char*>(data + 1);
  if (data[0] % 4 != 0) {
    const kx::String text = kx::String::fromUTF8(bytes, size - 1);
    return text.isEmpty() ? kx::String(wxString::From8BitData(bytes, size - 1)) : text;
  }
  kx::String text;
  for (size_t i = 1; i + 2 < size; i += 3) {
    text += wxUniChar(static_cast<unsigned>(data[i] | data[i + 1] << 8 | (data[i + 2] & 0x1F) << 16));
  }
  return text;
}

std::string pathBytesOf(const kx::CURI& uri) {
  std::string bytes;
  return uri.tryGetPathBytes(bytes) ? bytes : std::string("\0refused", 8);
}

void checkURI(const kx::CURI& uri) {
  const kx::CURI normalized = uri.toNormalized();
  check(normalized.toNormalized() == normalized);
  check(kx::CURI(uri.toString()).toNormalized() == normalized);

  // A name and its folder give the URI of that name again.
  const kx::String name = uri.getName();
  const kx::CURI parent = uri.getParent();
  if (!name.isEmpty()) {
    const kx::CURI joined = parent << name;
    check(joined.getName() == name && joined.getParent() == parent);
  }

  // getPath and the local bytes are two views of one path.
  const kx::CURI rebuilt(kx::String(), uri.getPath(), std::nullopt, std::nullopt, std::nullopt, -1, std::nullopt,
                         std::nullopt);
  std::string bytes;
  if (uri.tryGetPathBytes(bytes)) {
    check(pathBytesOf(rebuilt) == bytes);
    // The name is the last segment of what a local file system is given.
    std::string_view path = bytes;
    if (!path.empty() && path.back() == '/') path.remove_suffix(1);
    const size_t slash = path.rfind('/');
    check(pathBytesOf(kx::CURI() << name) == path.substr(slash == std::string_view::npos ? 0 : slash + 1));
  }

  const kx::CURI base(kx::String("file:///d/vms/disk.vmdk"));
  const kx::CURI resolved = base << uri;
  check(resolved.toNormalized().toNormalized() == resolved.toNormalized());
}

template <class Path>
void checkPath(const kx::String& text) {
  try {
    const Path path(text);
    const kx::CURI uri(path, false);
    checkURI(uri);
    // A Unix path is its URI's path, character for character.
    if (std::is_same_v<Path, kx::CUnixPath>) check(uri.getPath() == text);
    checkURI(kx::CURI(path, true));
  } catch (const kx::CError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  const kx::String text = toText(data, size);
  try {
    const kx::CURI uri(text);
    check(kx::CURI(uri.toString()) == uri);
    checkURI(uri);
  } catch (const kx::CError&) {
  }
  try {
    checkURI(kx::CURI(kx::String("file:///d/")) << text);
  } catch (const kx::CError&) {
  }
  checkPath<kx::CUnixPath>(text);
  checkPath<kx::CWindowsPath>(text);
  return 0;
}
