// The library's one exception family.
//
// kx::CError carries a message, a context (the operation that refused, such as
// "CVMDKGrain::seek"), a code, an ordered list of properties and optionally the
// error that caused it. what() gives the message followed by the properties,
// so an error that nobody catches is still readable.
//
// Codes: -1 is a failed internal precondition. kx::CIOError uses the codes of
// kx::IOErrorCode. A handler may add a property and rethrow:
//   catch (kx::CError& e) { e.getParams().add("uri", ...); throw; }
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kx/string.h"

namespace kx {

// Properties in insertion order. Keys are lower camel case; numbers decimal.
class CProps {
 public:
  CProps() = default;

  CProps& add(const String& key, const String& value);
  CProps& add(const String& key, const char* value) { return add(key, String(value)); }
  CProps& add(const String& key, int64_t value);
  CProps& add(const String& key, uint64_t value);
  CProps& add(const String& key, int32_t value) { return add(key, static_cast<int64_t>(value)); }
  CProps& add(const String& key, uint32_t value) { return add(key, static_cast<uint64_t>(value)); }

  bool has(const String& key) const;
  // The value of the first entry with that key, or an empty text.
  String get(const String& key) const;
  size_t size() const { return items_.size(); }
  bool isEmpty() const { return items_.empty(); }
  const std::vector<std::pair<String, String>>& getItems() const { return items_; }
  // "key: value, key2: value2"
  String toString() const;

 private:
  std::vector<std::pair<String, String>> items_;
};

class CError : public std::exception {
 public:
  CError(const String& message, const String& context = String(), int code = -1,
         const CProps& props = CProps(), const std::exception* inner = nullptr);
  ~CError() override;
  CError(const CError&);
  CError& operator=(const CError&);

  const String& getMessage() const { return message_; }
  const String& getContext() const { return context_; }
  int getCode() const { return code_; }
  const CProps& getProps() const { return props_; }
  // The properties, to be added to by a handler before it rethrows.
  CProps& getParams();
  // The error that caused this one, or null.
  const CError* getInner() const { return inner_.get(); }

  const char* what() const noexcept override;

  // Copies the error with its dynamic type, for keeping it as an inner error.
  virtual std::shared_ptr<CError> clone() const { return std::make_shared<CError>(*this); }
  // Throws a copy with the dynamic type of this error.
  [[noreturn]] virtual void rethrowCopy() const { throw *this; }

 protected:
  void setMessage(const String& message);

 private:
  String message_;
  String context_;
  int code_;
  CProps props_;
  std::shared_ptr<CError> inner_;
  mutable std::string what_;
};

// Codes of kx::CIOError.
enum IOErrorCode : int {
  IOERR_BEYOND_TARGET = 3,
  IOERR_READ_PAST_END = 4,
  IOERR_DAMAGED_DATA = 5,
  IOERR_UNSUPPORTED_VERSION = 6,
  IOERR_BAD_SEEK_POSITION = 7,
  IOERR_STREAM_CLOSED = 10,
  IOERR_NOT_ON_GRAIN_BOUNDARY = 11,
  IOERR_NOT_SUPPORTED = 13,
};

class CIOError : public CError {
 public:
  CIOError(int code, const String& message, const CProps& props = CProps(),
           const std::exception* inner = nullptr)
      : CError(message, String(), code, props, inner) {}
  std::shared_ptr<CError> clone() const override { return std::make_shared<CIOError>(*this); }
  [[noreturn]] void rethrowCopy() const override { throw *this; }
};

class CInvalidArgError : public CError {
 public:
  CInvalidArgError(const String& context, const String& message, const CProps& props = CProps())
      : CError(message, context, -1, props) {}
  std::shared_ptr<CError> clone() const override { return std::make_shared<CInvalidArgError>(*this); }
  [[noreturn]] void rethrowCopy() const override { throw *this; }
};

// What went wrong in a file system operation.
enum FileSystemProblem : int {
  FSPROB_OTHER = 0,
  FSPROB_NOT_FOUND = 1,
  FSPROB_ACCESS_DENIED = 2,
  FSPROB_ALREADY_EXISTS = 3,
  FSPROB_NO_SPACE = 4,
  FSPROB_IO = 5,
  FSPROB_NOT_SUPPORTED = 6,
  FSPROB_LOCKED = 7,
  FSPROB_BAD_NAME = 8,
};

// A file system failure: the problem code plus the error that describes it
// (message, context, code and properties are taken over from that error).
class CFileSystemError : public CError {
 public:
  CFileSystemError(int problem, const CError& error);
  int getProblem() const { return problem_; }
  std::shared_ptr<CError> clone() const override { return std::make_shared<CFileSystemError>(*this); }
  [[noreturn]] void rethrowCopy() const override { throw *this; }

 private:
  int problem_;
};

// A path that can't be made valid; the message is "Invalid path: " + path.
class CBadPathError : public CError {
 public:
  explicit CBadPathError(const String& path, const CProps& props = CProps());
  const String& getPath() const { return path_; }
  std::shared_ptr<CError> clone() const override { return std::make_shared<CBadPathError>(*this); }
  [[noreturn]] void rethrowCopy() const override { throw *this; }

 private:
  String path_;
};

// A lock file that is held by somebody else, or can't be made.
class CLockFileError : public CError {
 public:
  CLockFileError(const String& message, const CProps& props = CProps(), const std::exception* inner = nullptr)
      : CError(message, String(), -1, props, inner) {}
  std::shared_ptr<CError> clone() const override { return std::make_shared<CLockFileError>(*this); }
  [[noreturn]] void rethrowCopy() const override { throw *this; }
};

}  // namespace kx
