// A fixed set of threads that run one job at a time, all of them on it.
#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zarn_img {

// start() hands every thread the same job with its own number (0 to
// count - 1) and returns; wait() blocks until all are through and raises the
// first exception that a thread's job threw. start() and wait() alternate and
// are called from one thread. The destructor waits for a running job.
class CWorkerPool {
 public:
  explicit CWorkerPool(int count);
  ~CWorkerPool();
  CWorkerPool(const CWorkerPool&) = delete;
  CWorkerPool& operator=(const CWorkerPool&) = delete;

  int getCount() const { return static_cast<int>(threads_.size()); }
  void start(std::function<void(int worker)> job);
  void wait();

 private:
  void loop(int worker);

  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable done_;
  std::function<void(int)> job_;
  unsigned generation_ = 0;
  int running_ = 0;
  bool stopping_ = false;
  std::exception_ptr failure_;
};

}  // namespace zarn_img
