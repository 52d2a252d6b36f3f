// The queue interface every asynchronous component posts its work and callbacks to.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace nembra {

using Task = std::function<void()>;

class TaskQueue {
 public:
  virtual ~TaskQueue() = default;

  // Runs |task| later on this queue. Safe to call from any thread.
  virtual void async(Task task) = 0;
  // Runs |task| on this queue after |delay|. Safe to call from any thread.
  virtual void asyncAfter(std::chrono::milliseconds delay, Task task);
  // True when the calling thread is the one currently running this queue's tasks.
  virtual bool isCurrent() const = 0;
  virtual const std::string& name() const = 0;
};

}  // namespace nembra
