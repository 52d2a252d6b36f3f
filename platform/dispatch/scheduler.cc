#include "platform/dispatch/scheduler.h"

#include <atomic>
#include <vector>

#include "platform/dispatch/thread_name.h"

namespace nembra {

void TaskQueue::asyncAfter(std::chrono::milliseconds delay, Task task) {
  Scheduler::shared().postAt(Scheduler::Clock::now() + delay, *this, std::move(task));
}

namespace {
std::atomic<Scheduler*> running{nullptr};
}  // namespace

Scheduler& Scheduler::shared() {
  static Scheduler instance;
  return instance;
}

Scheduler::Scheduler() : thread_([this] { loop(); }) { running.store(this); }

void Scheduler::forget(TaskQueue& queue) {
  Scheduler* scheduler = running.load();
  if (!scheduler) return;
  std::vector<Entry> dropped;  // destroyed unlocked: a task's captures may schedule again
  std::unique_lock lock(scheduler->mutex_);
  for (auto it = scheduler->entries_.begin(); it != scheduler->entries_.end();) {
    if (it->second.queue == &queue) {
      dropped.push_back(std::move(it->second));
      it = scheduler->entries_.erase(it);
    } else {
      ++it;
    }
  }
  scheduler->posted_.wait(lock, [&] { return scheduler->posting_ != &queue; });
  lock.unlock();
}

Scheduler::~Scheduler() {
  running.store(nullptr);
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
      // A copy: forget() may erase the entry while this waits.
      const Clock::time_point deadline = first->first;
      wake_.wait_until(lock, deadline);
      continue;
    }
    Entry entry = std::move(first->second);
    entries_.erase(first);
    posting_ = entry.queue;
    lock.unlock();
    entry.queue->async(std::move(entry.task));
    lock.lock();
    posting_ = nullptr;
    posted_.notify_all();
  }
}

}  // namespace nembra
