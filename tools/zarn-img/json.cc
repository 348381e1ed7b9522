#include "json.h"

#include <cstdio>

namespace zarn_img {

std::string jsonQuote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

void CJsonWriter::beginValue(const std::string& name) {
  if (!hasMembers_.empty()) {
    text_ += hasMembers_.back() ? ",\n" : "\n";
    hasMembers_.back() = true;
    text_ += std::string(hasMembers_.size() * 4, ' ');
    if (!name.empty()) text_ += jsonQuote(name) + ": ";
  }
}

void CJsonWriter::close(char bracket) {
  const bool had = hasMembers_.back();
  hasMembers_.pop_back();
  if (had) text_ += "\n" + std::string(hasMembers_.size() * 4, ' ');
  text_ += bracket;
}

void CJsonWriter::beginObject(const std::string& name) {
  beginValue(name);
  text_ += "{";
  hasMembers_.push_back(false);
}

void CJsonWriter::endObject() { close('}'); }

void CJsonWriter::beginArray(const std::string& name) {
  beginValue(name);
  text_ += "[";
  hasMembers_.push_back(false);
}

void CJsonWriter::endArray() { close(']'); }

void CJsonWriter::addString(const std::string& name, const std::string& value) {
  beginValue(name);
  text_ += jsonQuote(value);
}

void CJsonWriter::addNumber(const std::string& name, int64_t value) {
  beginValue(name);
  text_ += std::to_string(value);
}

void CJsonWriter::addBool(const std::string& name, bool value) {
  beginValue(name);
  text_ += value ? "true" : "false";
}

void CJsonWriter::addNull(const std::string& name) {
  beginValue(name);
  text_ += "null";
}

}  // namespace zarn_img
