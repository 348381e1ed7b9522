#include "tests/support/fault_injection_file_system.h"

namespace test {

CFaultInjectionFileSystem::CFaultInjectionFileSystem(const kx::P<kx::IFileSystem>& target)
    : CObservedFileSystem(target) {}

void CFaultInjectionFileSystem::failNth(FileOp op, int n, bool sticky) {
  std::lock_guard<std::mutex> guard(mutex_);
  Rule& rule = rules_[static_cast<size_t>(op)];
  rule = Rule();
  if (n > 0) {
    rule.countdown = n;
    rule.sticky = sticky;
  }
}

void CFaultInjectionFileSystem::failAllAfter(int n) {
  std::lock_guard<std::mutex> guard(mutex_);
  allCountdown_ = n < 0 ? 0 : n;
}

void CFaultInjectionFileSystem::disarm() {
  std::lock_guard<std::mutex> guard(mutex_);
  rules_.fill(Rule());
  allCountdown_ = -1;
}

void CFaultInjectionFileSystem::setError(const kx::CError& error) {
  std::lock_guard<std::mutex> guard(mutex_);
  error_ = error.clone();
}

int CFaultInjectionFileSystem::getFaultCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return faultCount_;
}

int CFaultInjectionFileSystem::getCallCount(FileOp op) const {
  std::lock_guard<std::mutex> guard(mutex_);
  return calls_[static_cast<size_t>(op)];
}

void CFaultInjectionFileSystem::onOperation(FileOp op, const kx::CURI& uri, int) {
  std::shared_ptr<kx::CError> error;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    calls_[static_cast<size_t>(op)]++;
    Rule& rule = rules_[static_cast<size_t>(op)];
    bool fail = false;
    if (rule.firing) {
      fail = true;
    } else if (rule.countdown > 0 && --rule.countdown == 0) {
      fail = true;
      rule.firing = rule.sticky;
    }
    if (allCountdown_ == 0) {
      fail = true;
    } else if (allCountdown_ > 0 && !fail) {
      --allCountdown_;
    }
    if (!fail) return;
    faultCount_++;
    error = error_;
  }
  if (error) error->rethrowCopy();
  throw kx::CFileSystemError(
      kx::FSPROB_IO, kx::CError("Injected fault", kx::String(), -1,
                                kx::CProps().add("op", getFileOpName(op)).add("uri", uri.toString(true))));
}

}  // namespace test
