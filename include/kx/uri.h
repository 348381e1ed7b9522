// kx::CURI: a URI reference by RFC 3986.
//
// Components are kept in their escaped (percent-encoded) form, as they stand
// in the text; accessors without "Escaped" in their name give decoded text.
// Decoded text is Unicode; percent-escapes are read as UTF-8 bytes.
// An empty CURI has no component at all.
#pragma once

#include <cstdint>
#include <optional>

#include "kx/string.h"

namespace kx {

class CWindowsPathTraits;
class CUnixPathTraits;
template <class Traits>
class TPathImpl;

class CURI {
 public:
  CURI() = default;
  // Parses URI text. Raises kx::CInvalidArgError with context "CURI" on text
  // that is no URI reference (a bad percent-escape, a bad port, a character
  // that may not stand in it).
  explicit CURI(const String& text);
  // From a path: an absolute Unix path becomes "file:///...", a drive path
  // "C:\x" becomes "file:///C:/x", a UNC path "\\host\share\x" becomes
  // "file://host/share/x", a relative path a relative reference with no
  // scheme. Path characters are escaped as needed. `normalize` true normalizes
  // the path first (raising kx::CBadPathError when it can't be).
  CURI(const TPathImpl<CWindowsPathTraits>& path, bool normalize);
  CURI(const TPathImpl<CUnixPathTraits>& path, bool normalize);
  // From parts. `scheme` may be empty (a relative reference); `path` is
  // decoded text and is escaped here; the optional parts are decoded text as
  // well, except the query, which is given in escaped form. `port` -1 means
  // none.
  CURI(const String& scheme, const String& path, const std::optional<String>& userName,
       const std::optional<String>& userAuthInfo, const std::optional<String>& host, int64_t port,
       const std::optional<String>& query, const std::optional<String>& fragment);

  // The URI text. With `readable`, escapes of printable non-ASCII and of
  // blanks are shown as the characters, for messages.
  String toString(bool readable = false) const;

  bool isEmpty() const;
  // Whether the URI has a scheme.
  bool isAbsolute() const;

  const String& getScheme() const { return scheme_; }
  // Decoded path.
  String getPath() const;
  const String& getEscapedPath() const { return path_; }
  const std::optional<String>& getUserNameOptRef() const { return userName_; }
  const std::optional<String>& getUserAuthInfoOptRef() const { return userAuthInfo_; }
  const std::optional<String>& getHostOptRef() const { return host_; }
  // -1 when there is none.
  int64_t getPort() const { return port_; }
  const std::optional<String>& getEscapedUnicodeQueryOptRef() const { return query_; }
  const std::optional<String>& getFragmentOptRef() const { return fragment_; }

  // Last path segment, decoded: "disk.vmdk".
  String getName() const;
  // The name without its extension: "disk".
  String getTitle() const;
  // The extension with its dot: ".vmdk"; empty when the name has none.
  String getExtension() const;
  // The folder that holds this URI's last segment, ending in "/".
  CURI getParent() const;

  // Scheme and host lower-cased, dot segments removed, percent-escapes with
  // upper-case hex, escapes of unreserved characters decoded.
  CURI toNormalized() const;

  // This URI (taken as a folder if its path ends in "/") with a child name
  // added as one segment; the name is escaped.
  CURI operator<<(const String& childName) const;
  // Resolves `reference` against this URI as base (RFC 3986 section 5.2).
  CURI operator<<(const CURI& reference) const;

  bool operator==(const CURI& other) const;
  bool operator!=(const CURI& other) const { return !(*this == other); }
  bool operator<(const CURI& other) const { return toString() < other.toString(); }

 private:
  String scheme_;
  std::optional<String> userName_;
  std::optional<String> userAuthInfo_;
  std::optional<String> host_;
  int64_t port_ = -1;
  String path_;  // escaped
  std::optional<String> query_;  // escaped
  std::optional<String> fragment_;  // escaped
};

inline std::ostream& operator<<(std::ostream& os, const CURI& uri) { return os << uri.toString(true); }

}  // namespace kx
