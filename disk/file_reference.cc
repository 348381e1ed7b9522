#include "zarn/file_reference.h"

#include "kx/path.h"

namespace zarn {
namespace {

bool isSeparator(wxUniChar c) { return c == '/' || c == '\\'; }

bool isLetter(wxUniChar c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool isDrivePath(const kx::String& reference) {
  return reference.length() > 2 && isLetter(reference[0]) && reference[1] == ':' && isSeparator(reference[2]);
}

// "scheme:..." with nothing that separates path pieces before the colon.
bool isURIText(const kx::String& reference) {
  const size_t colon = reference.find(':');
  if (colon == kx::String::npos || colon == 0) return false;
  for (size_t i = 0; i < colon; ++i) {
    if (isSeparator(reference[i])) return false;
  }
  return true;
}

}  // namespace

kx::CURI vmdkFileReferenceToURI(const kx::CURI& base, const kx::String& reference) {
  kx::CURI result;
  if (isDrivePath(reference)) {
    result = kx::CURI(kx::CWindowsPath(reference), false);
  } else if (isURIText(reference)) {
    result = kx::CURI(reference);
  } else {
    if (reference.find('\\') != kx::String::npos) {
      result = kx::CURI(kx::CWindowsPath(reference), false);
    } else {
      result = kx::CURI(kx::CUnixPath(reference), false);
    }
    // A relative path carries no scheme into the resolution.
    if (!result.isAbsolute()) {
      result = kx::CURI(kx::String(), result.getPath(), result.getUserNameOptRef(), result.getUserAuthInfoOptRef(),
                        result.getHostOptRef(), result.getPort(), result.getEscapedUnicodeQueryOptRef(),
                        result.getFragmentOptRef());
    }
  }
  if (!result.isAbsolute()) result = base << result;
  return result.toNormalized();
}

}  // namespace zarn
