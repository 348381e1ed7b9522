#include "worker_pool.h"

namespace zarn_img {

CWorkerPool::CWorkerPool(int count) {
  for (int i = 0; i < count; ++i) threads_.emplace_back([this, i] { loop(i); });
}

CWorkerPool::~CWorkerPool() {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return running_ == 0; });
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void CWorkerPool::start(std::function<void(int)> job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    job_ = std::move(job);
    running_ = getCount();
    failure_ = nullptr;
    ++generation_;
  }
  wake_.notify_all();
}

void CWorkerPool::wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  done_.wait(lock, [this] { return running_ == 0; });
  if (failure_) std::rethrow_exception(failure_);
}

void CWorkerPool::loop(int worker) {
  unsigned seen = 0;
  for (;;) {
    std::function<void(int)> job;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [&] { return stopping_ || generation_ != seen; });
      if (stopping_) return;
      seen = generation_;
      job = job_;
    }
    std::exception_ptr failure;
    try {
      job(worker);
    } catch (...) {
      failure = std::current_exception();
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (failure && !failure_) failure_ = failure;
      if (--running_ == 0) done_.notify_all();
    }
  }
}

}  // namespace zarn_img
