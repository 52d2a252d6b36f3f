#include "nembra/main_queue.h"

#include "platform/dispatch/queue_ending.h"
#include "platform/dispatch/scheduler.h"

namespace nembra {

MainQueue::MainQueue() = default;

MainQueue::~MainQueue() {
  QueueEnding::run(*this);
  Scheduler::forget(*this);
}

MainQueue& MainQueue::shared() {
  static MainQueue instance;
  return instance;
}

void MainQueue::async(Task task) {
  // Notified under the lock: the owner may destroy the queue as soon as it sees the task, and
  // the condition variable must not be touched after that.
  std::lock_guard lock(mutex_);
  tasks_.push_back(std::move(task));
  wake_.notify_all();
}

bool MainQueue::isCurrent() const {
  std::lock_guard lock(mutex_);
  return runner_ == std::this_thread::get_id();
}

bool MainQueue::runOne(std::unique_lock<std::mutex>& lock) {
  if (tasks_.empty()) return false;
  Task task = std::move(tasks_.front());
  tasks_.pop_front();
  auto previous = runner_;
  runner_ = std::this_thread::get_id();
  lock.unlock();
  task();
  // The task's captures go before the lock is taken again: their destructors may lock mutexes
  // of their own that other threads hold while posting here, or post here themselves.
  task = nullptr;
  lock.lock();
  runner_ = previous;
  return true;
}

void MainQueue::run() {
  std::unique_lock lock(mutex_);
  stopRequested_ = false;
  while (!stopRequested_) {
    wake_.wait(lock, [this] { return stopRequested_ || !tasks_.empty(); });
    if (stopRequested_) break;
    runOne(lock);
  }
  stopRequested_ = false;
}

size_t MainQueue::runUntilIdle() {
  std::unique_lock lock(mutex_);
  size_t count = 0;
  while (runOne(lock)) ++count;
  return count;
}

bool MainQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock lock(mutex_);
  for (;;) {
    while (runOne(lock)) {
    }
    lock.unlock();
    bool finished = done();
    lock.lock();
    if (finished) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    wake_.wait_until(
        lock, std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(20)),
        [this] { return !tasks_.empty(); });
  }
}

void MainQueue::stop() {
  std::lock_guard lock(mutex_);  // notified under the lock, as in async()
  stopRequested_ = true;
  wake_.notify_all();
}

size_t MainQueue::pendingCount() const {
  std::lock_guard lock(mutex_);
  return tasks_.size();
}

}  // namespace nembra
