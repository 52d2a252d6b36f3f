#include "platform/dispatch/concurrent_queue.h"

#include <algorithm>

#include "platform/dispatch/scheduler.h"
#include "platform/dispatch/thread_name.h"

namespace nembra {

ConcurrentQueue::ConcurrentQueue(std::string name, unsigned threadCount) : name_(std::move(name)) {
  threadCount = std::max(1u, threadCount);
  for (unsigned i = 0; i < threadCount; ++i) threads_.emplace_back([this] { loop(); });
}

ConcurrentQueue::~ConcurrentQueue() {
  Scheduler::forget(*this);
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto& thread : threads_) thread.join();
}

void ConcurrentQueue::async(Task task) {
  // Notified under the lock: the owner may destroy the queue as soon as it sees the task, and
  // the condition variable must not be touched after that.
  std::lock_guard lock(mutex_);
  tasks_.push_back(std::move(task));
  wake_.notify_one();
}

bool ConcurrentQueue::isCurrent() const {
  auto self = std::this_thread::get_id();
  return std::any_of(threads_.begin(), threads_.end(),
                     [self](const std::thread& t) { return t.get_id() == self; });
}

void ConcurrentQueue::loop() {
  setCurrentThreadName(name_);
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) return;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // its captures are released unlocked, as on the main queue
    lock.lock();
  }
}

}  // namespace nembra
