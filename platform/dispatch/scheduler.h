// The process-wide delayed-task thread ("com.nembra.scheduler"): holds deadlines and, when one
// falls due, posts its task to the queue it was scheduled for. Never runs user code itself.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "nembra/task_queue.h"

namespace nembra {

class Scheduler {
 public:
  using Clock = std::chrono::steady_clock;

  static Scheduler& shared();

  // Posts |task| to |queue| once |deadline| has passed, unless |queue| has been forgotten.
  void postAt(Clock::time_point deadline, TaskQueue& queue, Task task);

  // Drops the tasks still waiting for |queue| and waits out a post to it in progress. Every
  // queue calls this first thing in its destructor, so a queue may go with timers pending.
  // Safe during static destruction (does nothing once the scheduler is gone).
  static void forget(TaskQueue& queue);

  ~Scheduler();

 private:
  Scheduler();
  void loop();

  struct Entry {
    TaskQueue* queue;
    Task task;
  };
  std::mutex mutex_;
  std::condition_variable wake_;
  std::multimap<Clock::time_point, Entry> entries_;  // guarded by mutex_
  bool stopping_ = false;                            // guarded by mutex_
  TaskQueue* posting_ = nullptr;  // the queue being posted to now; guarded by mutex_
  std::condition_variable posted_;
  std::thread thread_;
};

}  // namespace nembra
