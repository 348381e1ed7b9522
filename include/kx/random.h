// The process-wide random generator. Despite its historical name it draws
// every byte from the operating system's cryptographic random source: keys,
// salts, vectors and content IDs all come from here.
//
// Thread rule: every draw on the global instance runs under
// getGlobalInstanceMutex(), held with a kx::CMutexLock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

namespace kx {

class CMutexLock {
 public:
  explicit CMutexLock(std::mutex& mutex) : mutex_(mutex) { mutex_.lock(); }
  ~CMutexLock() { mutex_.unlock(); }
  CMutexLock(const CMutexLock&) = delete;
  CMutexLock& operator=(const CMutexLock&) = delete;

 private:
  std::mutex& mutex_;
};

class CMTRand {
 public:
  static CMTRand& getGlobal();
  static std::mutex& getGlobalInstanceMutex();

  uint32_t rand32();
  // Fills `size` bytes. Raises kx::CError if the OS source fails.
  void randData(void* data, size_t size);

 private:
  CMTRand() = default;
};

// The one call into the OS random source (random_posix.cc). Raises kx::CError.
void fillFromSystemRandom(void* data, size_t size);

}  // namespace kx
