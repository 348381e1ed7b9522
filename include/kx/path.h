// kx::TPathImpl<Traits>: a file system path as text, written by the rules of
// one system (the traits), plus whether it is known to be normalized.
//
// A path value is not bound to the system it runs on: a Windows path can be
// read on Unix and the other way round. kx::CURI is made from either kind.
//
// Normalizing a path works on text only and asks no file system: the root is
// kept, empty and "." pieces drop out, ".." removes the piece before it (and
// stays at the front of a relative path), and the traits clean up each piece.
// ".." above a root raises kx::CBadPathError ("Invalid path: " + path).
#pragma once

#include "kx/string.h"

namespace kx {

// Windows paths. Both "/" and "\" separate pieces; after normalizeSeparators
// only "\" does. Roots: "C:\" (drive), "C:" (drive-relative), "\\server\share\"
// (UNC) and "\" (root of the current drive).
class CWindowsPathTraits {
 public:
  static constexpr char kSeparator = '\\';

  static bool isSeparator(wxUniChar c) { return c == '\\' || c == '/'; }
  // Whether Windows would read the text as another path than it spells, so
  // that it has to be normalized before it can be used as it stands: a "/"
  // separator, an empty, "." or ".." piece, or a piece with trailing dots or
  // blanks, which Windows drops.
  static bool pathNeedsToBeNormalizedToBeValid(const String& path);
  // Every "/" becomes "\".
  static String normalizeSeparators(const String& path);
  // The length of the root of a path with normalized separators, -1 if it has
  // none (a relative path).
  static int getRootLength(const String& path);
  // The root in its normal form: separators are "\", a UNC root ends in "\".
  static String normalizeRoot(const String& root);
  // A piece as Windows stores it: without trailing dots and blanks. May give
  // an empty text, and the piece then drops out.
  static String normalizeComponent(const String& component);
  // The last touch on a normalized path: an empty path becomes ".".
  static String finalizeNormalizedPath(const String& path);
  // Whether the path names one place without a current drive or folder: a
  // drive root or a UNC root. "\x" and "C:x" depend on the current drive or
  // its current folder and aren't absolute.
  static bool isAbsolute(const String& path);
};

// Unix paths: "/" separates pieces, "/" is the only root; every text is a
// valid path as it stands.
class CUnixPathTraits {
 public:
  static constexpr char kSeparator = '/';

  static bool isSeparator(wxUniChar c) { return c == '/'; }
  // Always false: Unix takes every path as it is spelled.
  static bool pathNeedsToBeNormalizedToBeValid(const String& path);
  // The text unchanged.
  static String normalizeSeparators(const String& path);
  // 1 for a path that begins with "/", else -1.
  static int getRootLength(const String& path);
  // "/".
  static String normalizeRoot(const String& root);
  // The piece unchanged.
  static String normalizeComponent(const String& component);
  // An empty path becomes ".".
  static String finalizeNormalizedPath(const String& path);
  // Whether the path begins with "/".
  static bool isAbsolute(const String& path);
};

template <class Traits>
class TPathImpl {
 public:
  TPathImpl() = default;
  // Keeps the text, marked as not normalized, unless the traits say that the
  // text isn't valid as it stands: then it is replaced by its normalized form.
  // Raises kx::CBadPathError when that form doesn't exist (".." above the root).
  explicit TPathImpl(const String& path);

  const String& getPath() const { return path_; }
  bool isNormalized() const { return normalized_; }
  bool isEmpty() const { return path_.isEmpty(); }
  bool isAbsolute() const { return Traits::isAbsolute(path_); }
  // The normalized form of this path (this path if it is already normalized).
  // Raises kx::CBadPathError for ".." above the root.
  TPathImpl toNormalized() const;

  bool operator==(const TPathImpl& other) const { return path_ == other.path_; }
  bool operator!=(const TPathImpl& other) const { return !(*this == other); }

 private:
  // The text by the normalization described above; raises kx::CBadPathError.
  static String normalizeText(const String& path);

  String path_;
  bool normalized_ = false;
};

using CWindowsPath = TPathImpl<CWindowsPathTraits>;
using CUnixPath = TPathImpl<CUnixPathTraits>;

extern template class TPathImpl<CWindowsPathTraits>;
extern template class TPathImpl<CUnixPathTraits>;

}  // namespace kx
