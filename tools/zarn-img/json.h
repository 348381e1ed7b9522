// A small writer of indented JSON for the --output=json forms.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zarn_img {

// Text as a JSON string literal: quotes, backslashes and control characters
// escaped, other UTF-8 kept as it is.
std::string jsonQuote(const std::string& text);

// Builds one document in a string. Members and elements are written in call
// order; the caller nests begin/end pairs properly and names every member of
// an object (an empty name for elements of an array).
class CJsonWriter {
 public:
  void beginObject(const std::string& name = std::string());
  void endObject();
  void beginArray(const std::string& name = std::string());
  void endArray();
  void addString(const std::string& name, const std::string& value);
  void addNumber(const std::string& name, int64_t value);
  void addBool(const std::string& name, bool value);
  void addNull(const std::string& name);
  // The document with a final line end.
  std::string getText() const { return text_ + "\n"; }

 private:
  void beginValue(const std::string& name);
  void close(char bracket);

  std::string text_;
  std::vector<bool> hasMembers_;
};

}  // namespace zarn_img
