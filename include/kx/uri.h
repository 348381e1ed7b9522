// kx::CURI: a URI reference by RFC 3986.
//
// Components are kept in their escaped (percent-encoded) form, as they stand
// in the text; accessors without "Escaped" in their name give decoded text.
// An empty CURI has no component at all.
//
// Escapes stand for bytes, and one mapping turns bytes into text and back,
// the same in every accessor, constructor and operator: valid UTF-8 reads as
// its characters, and each byte of no valid UTF-8 sequence as U+DC00 plus
// the byte (U+DC80 to U+DCFF, lone surrogates that valid UTF-8 never gives).
// So "%FF" and "%C3%BF" are two names, and a name of any bytes can be read,
// changed and written back. Text with a character that maps to no bytes (any
// other surrogate, a value above U+10FFFF) is refused with
// kx::CInvalidArgError wherever it is turned into a URI; it never shrinks to
// another name. Such text turns into UTF-8 bytes only through this class.
//
// Segments are the units of names: getName, getParent and operator<< work on
// the escaped segments, so an escaped "/" belongs to its segment. getPath
// joins the decoded segments and can't show that difference; a file system
// that makes local names from segments refuses a segment with an escaped "/"
// or a zero byte (see tryGetPathBytes).
//
// Parsing is strict about the structure (scheme, authority, port, IP literals,
// percent-escapes) and lenient about two kinds of characters that real file
// names bring along: blanks and non-ASCII characters are taken and escaped as
// "%XX" of their UTF-8 bytes.
//
// A host of the form "[...]" (an IPv6 or future IP literal) keeps its brackets
// in getHostOptRef().
#pragma once

#include <cstdint>
#include <optional>
#include <string>

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

  // Whether the URI has no component at all (the text "").
  bool isEmpty() const;
  // Whether the URI has a scheme.
  bool isAbsolute() const;

  const String& getScheme() const { return scheme_; }
  // Decoded path.
  String getPath() const;
  // The bytes that the escaped path stands for, as a file system that names
  // files by bytes takes them. False when a segment holds an escaped "/" or
  // a zero byte, which can be no part of one name; `bytes` is then unusable.
  bool tryGetPathBytes(std::string& bytes) const;
  const String& getEscapedPath() const { return path_; }
  const std::optional<String>& getUserNameOptRef() const { return userName_; }
  const std::optional<String>& getUserAuthInfoOptRef() const { return userAuthInfo_; }
  const std::optional<String>& getHostOptRef() const { return host_; }
  // -1 when there is none.
  int64_t getPort() const { return port_; }
  // The query in escaped form, but with escapes of non-ASCII characters shown
  // as the characters; the parts constructor takes it back as it is.
  const std::optional<String>& getEscapedUnicodeQueryOptRef() const { return unicodeQuery_; }
  const std::optional<String>& getEscapedQueryOptRef() const { return query_; }
  const std::optional<String>& getFragmentOptRef() const { return fragment_; }
  const std::optional<String>& getEscapedFragmentOptRef() const { return fragmentEscaped_; }
  const std::optional<String>& getEscapedHostOptRef() const { return hostEscaped_; }

  // Last path segment, decoded: "disk.vmdk". A "/" at the end is passed over:
  // the name of "file:///a/b/" is "b"; that of "file:///" is empty.
  String getName() const;
  // The name without its extension: "disk".
  String getTitle() const;
  // The extension with its dot: ".vmdk"; empty when the name has none or
  // only a leading dot (".hidden").
  String getExtension() const;
  // The folder that holds the segment that getName() gives, ending in "/";
  // query and fragment drop out. "file:///a/b.vmdk" gives "file:///a/", the
  // relative "b.vmdk" gives "./", and "file:///" itself.
  CURI getParent() const;

  // Scheme and host lower-cased, dot segments removed, percent-escapes with
  // upper-case hex, escapes of unreserved characters decoded (RFC 3986
  // section 6.2.2). A relative path keeps the ".." at its front. Never fails;
  // takes time in proportion to the text.
  CURI toNormalized() const;

  // This URI taken as a folder, with a child name added as one segment: the
  // name is escaped, "/" included. "file:///a" << "b" and "file:///a/" << "b"
  // both give "file:///a/b"; query and fragment drop out.
  CURI operator<<(const String& childName) const;
  // Resolves `reference` against this URI as base (RFC 3986 section 5.2). The
  // base should be absolute; with a relative base the result is relative too.
  CURI operator<<(const CURI& reference) const;

  // Component by component on the escaped text: "http://A/" and "http://a/"
  // differ; compare normalized URIs for equivalence.
  bool operator==(const CURI& other) const;
  bool operator!=(const CURI& other) const { return !(*this == other); }
  bool operator<(const CURI& other) const { return toString() < other.toString(); }

 private:
  // Sets the decoded copies that the accessors hand out by reference.
  void updateDecoded();
  bool hasAuthority() const { return hostEscaped_.has_value(); }

  String scheme_;
  std::optional<String> userNameEscaped_;
  std::optional<String> userAuthInfoEscaped_;
  std::optional<String> hostEscaped_;
  int64_t port_ = -1;
  String path_;                  // escaped
  std::optional<String> query_;  // escaped
  std::optional<String> fragmentEscaped_;

  std::optional<String> userName_;
  std::optional<String> userAuthInfo_;
  std::optional<String> host_;
  std::optional<String> unicodeQuery_;
  std::optional<String> fragment_;
};

inline std::ostream& operator<<(std::ostream& os, const CURI& uri) { return os << uri.toString(true); }

}  // namespace kx
