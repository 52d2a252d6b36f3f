// A named serial dispatch queue: one thread, tasks run one at a time in posting order.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "nembra/task_queue.h"

namespace nembra {

class SerialQueue final : public TaskQueue {
 public:
  // The thread carries |name| (truncated to the kernel's 15 characters) for debuggers.
  explicit SerialQueue(std::string name);
  // Runs the tasks already posted, then joins the thread. Must not be called on this queue.
  ~SerialQueue() override;

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  void async(Task task) override;
  // Runs |task| on the queue and waits for it. Must not be called on this queue.
  void sync(const Task& task);
  bool isCurrent() const override;
  const std::string& name() const override { return name_; }

 private:
  void loop();

  const std::string name_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;  // guarded by mutex_
  bool stopping_ = false;   // guarded by mutex_
  std::thread thread_;
};

}  // namespace nembra
