// Ctrl-C and kill: the tool stops at the next grain, lets its disks flush as
// they go out of scope, and leaves files that open.
#pragma once

#include <stdexcept>
#include <string>

namespace zarn_img {

// Raised where work stops after SIGINT or SIGTERM; main prints the message
// and turns it into the exit status 128 + signal.
class CInterrupted : public std::runtime_error {
 public:
  explicit CInterrupted(int signal, const std::string& message = "interrupted; what was written so far is flushed")
      : std::runtime_error(message), signal_(signal) {}
  int getSignal() const { return signal_; }

 private:
  int signal_;
};

// Installs the handlers. A second signal of the same kind ends the process
// at once, for a user who doesn't want to wait for the flush.
void installInterruptHandlers();
// The signal that arrived, or 0. Safe from any thread.
int getPendingInterrupt();
// Raises CInterrupted when a signal arrived.
void checkInterrupted();

}  // namespace zarn_img
