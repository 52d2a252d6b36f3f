// The main queue: carries every delegate call and UI-facing callback. The host drives it,
// either by giving it a thread (run() until stop()) or by pumping it (runUntilIdle()), which is
// what tests do to run callbacks deterministically.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "nembra/task_queue.h"

namespace nembra {

class MainQueue final : public TaskQueue {
 public:
  MainQueue();
  // Tasks still scheduled for later on this queue are dropped.
  ~MainQueue() override;

  // The process-wide main queue used when a component is not given one.
  static MainQueue& shared();

  void async(Task task) override;
  bool isCurrent() const override;
  const std::string& name() const override { return name_; }

  // Runs tasks as they arrive until stop() is called. Returns after the task running when stop()
  // was called finishes; tasks still queued stay queued.
  void run();
  // Runs every task queued now and those they post, until the queue is empty. Returns the
  // number of tasks run.
  size_t runUntilIdle();
  // Runs tasks until |done| returns true or |timeout| passes; returns |done|'s last answer.
  // Tests use it to wait for a callback posted from another thread.
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Makes run() return. Safe from any thread.
  void stop();
  size_t pendingCount() const;

 private:
  bool runOne(std::unique_lock<std::mutex>& lock);

  const std::string name_ = "com.nembra.main";
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;  // guarded by mutex_
  bool stopRequested_ = false;
  std::thread::id runner_;  // thread running tasks now; guarded by mutex_
};

}  // namespace nembra
