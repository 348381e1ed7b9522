#include "interrupt.h"

#include <signal.h>

#include <atomic>

namespace zarn_img {

namespace {

std::atomic<int> pendingSignal{0};

void onSignal(int signal) { pendingSignal.store(signal); }

}  // namespace

void installInterruptHandlers() {
  struct sigaction action = {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a read from a terminal or pipe returns with EINTR, so a
  // waiting prompt or `write -` notices the signal too.
  action.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int getPendingInterrupt() { return pendingSignal.load(); }

void checkInterrupted() {
  const int signal = pendingSignal.load();
  if (signal != 0) throw CInterrupted(signal);
}

}  // namespace zarn_img
