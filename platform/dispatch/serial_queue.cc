#include "platform/dispatch/serial_queue.h"

#include <future>

#include "platform/dispatch/scheduler.h"
#include "platform/dispatch/thread_name.h"

namespace nembra {

SerialQueue::SerialQueue(std::string name) : name_(std::move(name)), thread_([this] { loop(); }) {}

SerialQueue::~SerialQueue() {
  Scheduler::forget(*this);
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void SerialQueue::async(Task task) {
  // Notified under the lock: the owner may destroy the queue as soon as it sees the task, and
  // the condition variable must not be touched after that.
  std::lock_guard lock(mutex_);
  tasks_.push_back(std::move(task));
  wake_.notify_one();
}

void SerialQueue::sync(const Task& task) {
  std::promise<void> done;
  async([&] {
    task();
    done.set_value();
  });
  done.get_future().wait();
}

bool SerialQueue::isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

void SerialQueue::loop() {
  setCurrentThreadName(name_);
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) return;  // stopping, and everything posted has run
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // its captures are released unlocked, as on the main queue
    lock.lock();
  }
}

}  // namespace nembra
