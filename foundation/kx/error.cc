#include "kx/error.h"

namespace kx {

CProps& CProps::add(const String& key, const String& value) {
  items_.emplace_back(key, value);
  return *this;
}

CProps& CProps::add(const String& key, int64_t value) {
  return add(key, String(std::to_string(value)));
}

CProps& CProps::add(const String& key, uint64_t value) {
  return add(key, String(std::to_string(value)));
}

bool CProps::has(const String& key) const {
  for (const auto& item : items_) {
    if (item.first == key) return true;
  }
  return false;
}

String CProps::get(const String& key) const {
  for (const auto& item : items_) {
    if (item.first == key) return item.second;
  }
  return String();
}

String CProps::toString() const {
  String text;
  for (const auto& item : items_) {
    if (!text.isEmpty()) text += ", ";
    text += item.first;
    text += ": ";
    text += item.second;
  }
  return text;
}

CError::CError(const String& message, const String& context, int code, const CProps& props,
               const std::exception* inner)
    : message_(message), context_(context), code_(code), props_(props) {
  if (inner) {
    if (auto* innerError = dynamic_cast<const CError*>(inner)) {
      inner_ = innerError->clone();
    } else {
      inner_ = std::make_shared<CError>(String::fromUTF8(inner->what()));
    }
  }
}

CError::~CError() = default;
CError::CError(const CError&) = default;
CError& CError::operator=(const CError&) = default;

CProps& CError::getParams() {
  what_.clear();
  return props_;
}

void CError::setMessage(const String& message) {
  message_ = message;
  what_.clear();
}

const char* CError::what() const noexcept {
  try {
    if (what_.empty()) {
      String text = message_;
      if (!context_.isEmpty()) text = context_ + ": " + text;
      if (!props_.isEmpty()) text += " (" + props_.toString() + ")";
      if (inner_) text += String(" [caused by: ") + String::fromUTF8(inner_->what()) + "]";
      what_ = text.toUTF8();
      if (what_.empty()) what_ = "kx::CError";
    }
    return what_.c_str();
  } catch (...) {
    return "kx::CError";
  }
}

CFileSystemError::CFileSystemError(int problem, const CError& error)
    : CError(error.getMessage(), error.getContext(), error.getCode(), error.getProps(),
             error.getInner()),
      problem_(problem) {}

CBadPathError::CBadPathError(const String& path, const CProps& props)
    : CError(String("Invalid path: ") + path, String(), -1, props), path_(path) {}

}  // namespace kx
