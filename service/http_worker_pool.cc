#include "service/http_worker_pool.h"

#include "platform/dispatch/thread_name.h"

namespace nembra {

HttpWorkerPool::HttpWorkerPool(std::string name, size_t maxThreads)
    : name_(std::move(name)), maxThreads_(maxThreads < 1 ? 1 : maxThreads) {}

HttpWorkerPool::~HttpWorkerPool() { shutdown(); }

void HttpWorkerPool::enqueue(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    tasks_.push_back(std::move(task));
    if (idle_ < tasks_.size() && threads_.size() < maxThreads_) {
      size_t index = threads_.size();
      threads_.emplace_back([this, index] { loop(index); });
    }
  }
  wake_.notify_one();
}

void HttpWorkerPool::shutdown() {
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    threads.swap(threads_);
  }
  wake_.notify_all();
  for (auto& thread : threads) thread.join();
}

void HttpWorkerPool::loop(size_t index) {
  setCurrentThreadName(name_ + "." + std::to_string(index));
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    --idle_;
    if (tasks_.empty()) return;  // stopping, nothing left
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    lock.lock();
  }
}

}  // namespace nembra
