#include "platform/dispatch/scheduler.h"

#include "platform/dispatch/thread_name.h"

namespace nembra {

void TaskQueue::asyncAfter(std::chrono::milliseconds delay, Task task) {
  Scheduler::shared().postAt(Scheduler::Clock::now() + delay, *this, std::move(task));
}

Scheduler& Scheduler::shared() {
  static Scheduler instance;
  return instance;
}

Scheduler::Scheduler() : thread_([this] { loop(); }) {}

Scheduler::~Scheduler() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void Scheduler::postAt(Clock::time_point deadline, TaskQueue& queue, Task task) {
  {
    std::lock_guard lock(mutex_);
    entries_.emplace(deadline, Entry{&queue, std::move(task)});
  }
  wake_.notify_all();
}

void Scheduler::loop() {
  setCurrentThreadName("com.nembra.scheduler");
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (entries_.empty()) {
      wake_.wait(lock);
      continue;
    }
    auto first = entries_.begin();
    if (first->first > Clock::now()) {
      wake_.wait_until(lock, first->first);
      continue;
    }
    Entry entry = std::move(first->second);
    entries_.erase(first);
    lock.unlock();
    entry.queue->async(std::move(entry.task));
    lock.lock();
  }
}

}  // namespace nembra
