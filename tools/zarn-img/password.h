// Where zarn-img gets a password: never from an argument, which other users
// of the machine could read in the process list.
#pragma once

#include <string>

#include "kx/string.h"

namespace zarn_img {

// Sources in order: the file of --password-file (all of it but a line end
// at its end), the
// environment variable ZARN_PASSWORD, a prompt without echo on the
// controlling terminal. The answer is kept for the rest of the run, so a
// disk and its parents, or a source and target, ask only once.
class CPasswordSource {
 public:
  void setFile(const std::string& path) { file_ = path; }

  // Whether a password comes without asking (file or environment).
  bool isGiven() const;
  // The password; prompts with `prompt` when nothing was given and a terminal
  // is there, twice when `confirm` (and raises kx::CError when the two
  // differ). Empty when there is no source at all. Raises kx::CError when the
  // file can't be read.
  kx::String get(const std::string& prompt, bool confirm);
  // Whether get() gave a password already, which it keeps giving.
  bool isKnown() const { return known_; }
  // Whether get() could prompt.
  static bool hasTerminal();

 private:
  std::string file_;
  bool known_ = false;
  kx::String password_;
};

}  // namespace zarn_img
