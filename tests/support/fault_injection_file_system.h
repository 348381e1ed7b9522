// test::CFaultInjectionFileSystem: a wrapper file system that fails chosen
// operations, counted over itself and all streams it opened, so a test can
// walk through every failure point of a piece of work (open, each read, each
// write, the final delete ...) and check what is left behind.
//
//   auto fs = kx::create<test::CFaultInjectionFileSystem>(memoryFs);
//   fs->failNth(test::FileOp::Write, 3);  // the third write from now fails
//
// A failed operation doesn't reach the target: a failed write writes nothing.
#pragma once

#include <array>
#include <memory>
#include <mutex>

#include "kx/error.h"
#include "tests/support/observed_file_system.h"

namespace test {

class CFaultInjectionFileSystem final : public CObservedFileSystem {
 public:
  explicit CFaultInjectionFileSystem(const kx::P<kx::IFileSystem>& target);

  // The `n`-th call of `op` from now on (1 = the next one) fails; with
  // `sticky` every later call of `op` fails as well. n <= 0 disarms `op`.
  void failNth(FileOp op, int n, bool sticky = false);
  // After `n` more observed operations of any kind have succeeded, every
  // observed operation fails, as on a device that went away.
  void failAllAfter(int n);
  // Clears all rules; counts stay.
  void disarm();

  // The error that injected faults raise. The default is a
  // kx::CFileSystemError FSPROB_IO "Injected fault" with the properties "op"
  // and "uri".
  void setError(const kx::CError& error);

  // How many faults were raised, and how many calls of `op` were seen
  // (failed ones included).
  int getFaultCount() const;
  int getCallCount(FileOp op) const;

  void onOperation(FileOp op, const kx::CURI& uri, int size) override;

 private:
  struct Rule {
    int countdown = 0;  // 0: not armed
    bool sticky = false;
    bool firing = false;
  };

  mutable std::mutex mutex_;
  std::array<Rule, kFileOpCount> rules_{};
  std::array<int, kFileOpCount> calls_{};
  int allCountdown_ = -1;  // -1: not armed; 0: everything fails
  int faultCount_ = 0;
  std::shared_ptr<kx::CError> error_;
};

}  // namespace test
