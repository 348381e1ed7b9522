// test::CCountingFileSystem: counts the operations that reach a target file
// system, per kind and over all streams it opened. On the local file system
// each counted stream operation but seek is one system call (or a short run
// of them), so the counts measure what a buffering layer saves.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "tests/support/observed_file_system.h"

namespace test {

class CCountingFileSystem final : public CObservedFileSystem {
 public:
  using CObservedFileSystem::CObservedFileSystem;

  // Calls of `op` since construction or the last reset.
  int64_t getCount(FileOp op) const { return counts_[index(op)].load(); }
  // Bytes asked for by the counted reads or writes (`op` Read or Write).
  int64_t getBytes(FileOp op) const { return bytes_[index(op)].load(); }
  void reset() {
    for (auto& count : counts_) count = 0;
    for (auto& bytes : bytes_) bytes = 0;
  }

  void onOperation(FileOp op, const kx::CURI&, int size) override {
    counts_[index(op)]++;
    bytes_[index(op)] += size;
  }

 private:
  static size_t index(FileOp op) { return static_cast<size_t>(op); }

  std::array<std::atomic<int64_t>, kFileOpCount> counts_{};
  std::array<std::atomic<int64_t>, kFileOpCount> bytes_{};
};

}  // namespace test
