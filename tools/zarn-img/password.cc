#include "password.h"

#include <errno.h>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "interrupt.h"
#include "kx/error.h"

namespace zarn_img {

namespace {

// Closes the terminal and gives it its echo back, also on the way out of an
// interruption.
class CTerminal {
 public:
  CTerminal() : fd_(::open("/dev/tty", O_RDWR | O_CLOEXEC)) {}
  ~CTerminal() {
    if (echoOff_) ::tcsetattr(fd_, TCSAFLUSH, &saved_);
    if (fd_ >= 0) ::close(fd_);
  }
  CTerminal(const CTerminal&) = delete;
  CTerminal& operator=(const CTerminal&) = delete;

  bool isOpen() const { return fd_ >= 0; }

  std::string readHidden(const std::string& prompt) {
    say(prompt);
    if (::tcgetattr(fd_, &saved_) == 0) {
      termios quiet = saved_;
      quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
      quiet.c_lflag |= ECHONL;
      echoOff_ = ::tcsetattr(fd_, TCSAFLUSH, &quiet) == 0;
    }
    std::string line;
    char c;
    for (;;) {
      const ssize_t got = ::read(fd_, &c, 1);
      if (got < 0 && errno == EINTR) {
        checkInterrupted();
        continue;
      }
      if (got <= 0 || c == '\n') break;
      line += c;
    }
    if (echoOff_) {
      ::tcsetattr(fd_, TCSAFLUSH, &saved_);
      echoOff_ = false;
    }
    checkInterrupted();
    return line;
  }

  void say(const std::string& text) {
    if (::write(fd_, text.data(), text.size()) < 0) {
      // Nothing to be done: the prompt is only a courtesy.
    }
  }

 private:
  int fd_;
  termios saved_{};
  bool echoOff_ = false;
};

std::string withoutLineEnd(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (!text.empty() && text.back() == '\r') text.pop_back();
  return text;
}

}  // namespace

bool CPasswordSource::isGiven() const { return !file_.empty() || std::getenv("ZARN_PASSWORD") != nullptr; }

bool CPasswordSource::hasTerminal() { return CTerminal().isOpen(); }

kx::String CPasswordSource::get(const std::string& prompt, bool confirm) {
  if (known_) return password_;
  std::string text;
  if (!file_.empty()) {
    std::ifstream in(file_, std::ios::binary);
    if (!in) throw kx::CError("Cannot read the password file.", kx::String(), -1, kx::CProps().add("path", file_));
    text = withoutLineEnd(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
  } else if (const char* env = std::getenv("ZARN_PASSWORD")) {
    text = env;
  } else {
    CTerminal terminal;
    if (!terminal.isOpen()) return kx::String();
    text = terminal.readHidden(prompt);
    if (confirm && terminal.readHidden("Repeat the password: ") != text) {
      throw kx::CError("The two passwords differ.");
    }
  }
  password_ = kx::String::fromUTF8(text);
  known_ = true;
  return password_;
}

}  // namespace zarn_img
