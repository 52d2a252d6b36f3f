#include "platform/dispatch/timer.h"

#include "platform/dispatch/scheduler.h"

namespace nembra {

struct Timer::State : std::enable_shared_from_this<Timer::State> {
  TaskQueue* queue = nullptr;
  Task task;
  std::chrono::milliseconds interval{0};
  bool repeats = false;
  std::atomic<bool> valid{true};

  void schedule(Scheduler::Clock::time_point deadline) {
    std::weak_ptr<State> weak = shared_from_this();
    Scheduler::shared().postAt(deadline, *queue, [weak, deadline] {
      auto self = weak.lock();
      if (!self || !self->valid) return;
      if (!self->repeats) self->valid = false;
      // Rescheduled before running so a slow task does not drift the period.
      if (self->repeats) self->schedule(deadline + self->interval);
      self->task();
    });
  }
};

Timer::Timer(std::shared_ptr<State> state) : state_(std::move(state)) {}

Timer::~Timer() { cancel(); }

std::unique_ptr<Timer> Timer::oneShot(TaskQueue& queue, std::chrono::milliseconds delay,
                                      Task task) {
  auto state = std::make_shared<State>();
  state->queue = &queue;
  state->task = std::move(task);
  state->schedule(Scheduler::Clock::now() + delay);
  return std::unique_ptr<Timer>(new Timer(std::move(state)));
}

std::unique_ptr<Timer> Timer::repeating(TaskQueue& queue, std::chrono::milliseconds interval,
                                        Task task) {
  auto state = std::make_shared<State>();
  state->queue = &queue;
  state->task = std::move(task);
  state->interval = std::max(interval, std::chrono::milliseconds(1));
  state->repeats = true;
  state->schedule(Scheduler::Clock::now() + state->interval);
  return std::unique_ptr<Timer>(new Timer(std::move(state)));
}

void Timer::cancel() { state_->valid = false; }

bool Timer::isValid() const { return state_->valid; }

}  // namespace nembra
