// Counts time while running, leaving out the pauses, and ticks on a queue.
//
// Threading: the queue given (the main queue); onTick runs there.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "nembra/task_queue.h"

namespace nembra {

class Timer;

class Chronometer {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  // |interval| seconds between ticks; 0 ticks as often as a screen can show (every 50 ms).
  // |clock| defaults to the steady clock (tests give their own).
  Chronometer(TaskQueue& queue, double interval, std::function<void(double elapsed)> onTick,
              Clock clock = {});
  ~Chronometer();

  // With |fireNow| the first tick comes at once.
  void start(bool fireNow);
  void pause();
  void resume();
  void stop();
  bool running() const { return running_; }
  // Seconds counted so far.
  double elapsed() const;

 private:
  void tick();

  TaskQueue& queue_;
  std::chrono::milliseconds interval_;
  std::function<void(double)> onTick_;
  Clock clock_;
  std::unique_ptr<Timer> timer_;
  std::chrono::steady_clock::duration counted_{};
  std::chrono::steady_clock::time_point since_;
  bool running_ = false;
  bool paused_ = false;
};

}  // namespace nembra
