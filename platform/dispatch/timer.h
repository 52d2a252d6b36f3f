// One-shot and repeating timers whose callbacks run on a chosen queue.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "nembra/task_queue.h"

namespace nembra {

// A scheduled callback. Destroying or cancelling the Timer stops future firings; a firing that
// is already posted to the queue checks the flag first and does nothing.
class Timer {
 public:
  // Calls |task| once on |queue| after |delay|. |queue| must outlive the timer's firing.
  static std::unique_ptr<Timer> oneShot(TaskQueue& queue, std::chrono::milliseconds delay,
                                        Task task);
  // Calls |task| on |queue| every |interval| until cancelled.
  static std::unique_ptr<Timer> repeating(TaskQueue& queue, std::chrono::milliseconds interval,
                                          Task task);

  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  void cancel();
  bool isValid() const;

 private:
  struct State;
  explicit Timer(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

}  // namespace nembra
