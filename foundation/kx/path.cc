#include "kx/path.h"

#include <vector>

#include "foundation/kx/split.h"
#include "kx/error.h"

namespace kx {

namespace {

bool isAsciiLetter(wxUniChar c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool isTrailingTrimmedOnWindows(wxUniChar c) { return c == '.' || c == ' '; }

}  // namespace

// ---- Windows

bool CWindowsPathTraits::pathNeedsToBeNormalizedToBeValid(const String& path) {
  if (path.find('/') != String::npos) return true;
  const int rootLength = getRootLength(path);
  const String rest = rootLength < 0 ? path : String(path.Mid(rootLength));
  if (rest.isEmpty()) return false;
  const std::vector<String> pieces = detail::splitAt(rest, kSeparator);
  for (size_t i = 0; i < pieces.size(); ++i) {
    const String& piece = pieces[i];
    // A trailing separator leaves one empty piece at the end; that is harmless.
    if (piece.isEmpty()) {
      if (i + 1 < pieces.size()) return true;
      continue;
    }
    if (piece == "." || piece == "..") return true;
    if (isTrailingTrimmedOnWindows(piece.Last())) return true;
  }
  return false;
}

String CWindowsPathTraits::normalizeSeparators(const String& path) {
  String result(path);
  result.Replace("/", "\\");
  return result;
}

int CWindowsPathTraits::getRootLength(const String& path) {
  const size_t length = path.length();
  if (length >= 2 && isAsciiLetter(path[0]) && path[1] == ':') {
    return length >= 3 && path[2] == kSeparator ? 3 : 2;
  }
  if (length >= 2 && path[0] == kSeparator && path[1] == kSeparator) {
    // "\\server\share\": the root takes in the server, the share and the
    // separator behind it, as far as they are there.
    size_t pos = 2;
    for (int piece = 0; piece < 2 && pos < length; ++piece) {
      const size_t separator = path.find(kSeparator, pos);
      if (separator == String::npos) return static_cast<int>(length);
      pos = separator + 1;
    }
    return static_cast<int>(pos);
  }
  if (length >= 1 && path[0] == kSeparator) return 1;
  return -1;
}

String CWindowsPathTraits::normalizeRoot(const String& root) {
  String result = normalizeSeparators(root);
  if (result.StartsWith("\\\\") && !result.EndsWith("\\")) result += kSeparator;
  return result;
}

String CWindowsPathTraits::normalizeComponent(const String& component) {
  size_t end = component.length();
  while (end > 0 && isTrailingTrimmedOnWindows(component[end - 1])) --end;
  return String(component.Left(end));
}

String CWindowsPathTraits::finalizeNormalizedPath(const String& path) {
  return path.isEmpty() ? String(".") : path;
}

bool CWindowsPathTraits::isAbsolute(const String& path) {
  const String normalized = normalizeSeparators(path);
  const int rootLength = getRootLength(normalized);
  return rootLength >= 2 && (normalized.StartsWith("\\\\") || rootLength == 3);
}

// ---- Unix

bool CUnixPathTraits::pathNeedsToBeNormalizedToBeValid(const String&) { return false; }

String CUnixPathTraits::normalizeSeparators(const String& path) { return path; }

int CUnixPathTraits::getRootLength(const String& path) {
  return !path.isEmpty() && path[0] == kSeparator ? 1 : -1;
}

String CUnixPathTraits::normalizeRoot(const String&) { return String("/"); }

String CUnixPathTraits::normalizeComponent(const String& component) { return component; }

String CUnixPathTraits::finalizeNormalizedPath(const String& path) {
  return path.isEmpty() ? String(".") : path;
}

bool CUnixPathTraits::isAbsolute(const String& path) { return getRootLength(path) == 1; }

// ---- TPathImpl

template <class Traits>
TPathImpl<Traits>::TPathImpl(const String& path) : path_(path) {
  if (Traits::pathNeedsToBeNormalizedToBeValid(path)) {
    path_ = normalizeText(path);
    normalized_ = true;
  }
}

template <class Traits>
TPathImpl<Traits> TPathImpl<Traits>::toNormalized() const {
  if (normalized_) return *this;
  TPathImpl result;
  result.path_ = normalizeText(path_);
  result.normalized_ = true;
  return result;
}

template <class Traits>
String TPathImpl<Traits>::normalizeText(const String& path) {
  const String separated = Traits::normalizeSeparators(path);
  const int rootLength = Traits::getRootLength(separated);
  const bool hasRoot = rootLength >= 0;
  const String rest = hasRoot ? String(separated.Mid(rootLength)) : separated;

  std::vector<String> kept;
  for (const String& piece : detail::splitAt(rest, Traits::kSeparator)) {
    if (piece.isEmpty() || piece == ".") continue;
    if (piece == "..") {
      if (!kept.empty() && kept.back() != "..") {
        kept.pop_back();
      } else if (hasRoot) {
        throw CBadPathError(path);
      } else {
        kept.push_back(piece);
      }
      continue;
    }
    const String component = Traits::normalizeComponent(piece);
    if (!component.isEmpty()) kept.push_back(component);
  }

  const String root = hasRoot ? Traits::normalizeRoot(String(separated.Left(rootLength))) : String();
  String result = root;
  for (const String& piece : kept) {
    // A drive-relative root ("C:") takes its first piece without a separator,
    // or the path would turn absolute.
    const bool atDriveRelativeRoot = result.length() == root.length() && root.EndsWith(":");
    if (!result.isEmpty() && !Traits::isSeparator(result.Last()) && !atDriveRelativeRoot) {
      result += Traits::kSeparator;
    }
    result += piece;
  }
  return Traits::finalizeNormalizedPath(result);
}

template class TPathImpl<CWindowsPathTraits>;
template class TPathImpl<CUnixPathTraits>;

}  // namespace kx
