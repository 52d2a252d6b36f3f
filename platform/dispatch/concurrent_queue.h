// A named concurrent dispatch queue: a fixed pool of threads taking tasks in posting order.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "nembra/task_queue.h"

namespace nembra {

class ConcurrentQueue final : public TaskQueue {
 public:
  ConcurrentQueue(std::string name, unsigned threadCount = 4);
  // Runs the tasks already posted, then joins the threads.
  ~ConcurrentQueue() override;

  ConcurrentQueue(const ConcurrentQueue&) = delete;
  ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

  void async(Task task) override;
  bool isCurrent() const override;
  const std::string& name() const override { return name_; }

 private:
  void loop();

  const std::string name_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;  // guarded by mutex_
  bool stopping_ = false;   // guarded by mutex_
  std::vector<std::thread> threads_;
};

}  // namespace nembra
