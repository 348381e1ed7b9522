// kx::String: the library's text type, a wxString with the few operations the
// library names in its own style.
#pragma once

#include <wx/string.h>

#include <ostream>
#include <string>

namespace kx {

class String : public wxString {
 public:
  using wxString::wxString;
  String() = default;
  String(const wxString& s) : wxString(s) {}
  String(wxString&& s) noexcept : wxString(std::move(s)) {}
  String(const std::string& utf8) : wxString(wxString::FromUTF8(utf8.data(), utf8.size())) {}

  bool isEmpty() const { return IsEmpty(); }
  size_t getLength() const { return length(); }
  // The UTF-8 bytes of the text, without terminator.
  std::string toUTF8() const {
    const wxScopedCharBuffer buf = utf8_str();
    return std::string(buf.data(), buf.length());
  }
  static String fromUTF8(const char* data, size_t size) { return wxString::FromUTF8(data, size); }
  static String fromUTF8(const std::string& s) { return fromUTF8(s.data(), s.size()); }
};

inline std::ostream& operator<<(std::ostream& os, const String& s) { return os << s.toUTF8(); }

}  // namespace kx
