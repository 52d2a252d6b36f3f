#include "capture/chronometer.h"

#include <algorithm>

#include "platform/dispatch/timer.h"

namespace nembra {

Chronometer::Chronometer(TaskQueue& queue, double interval, std::function<void(double)> onTick,
                         Clock clock)
    : queue_(queue),
      interval_(std::max<int64_t>(50, static_cast<int64_t>(interval * 1000))),
      onTick_(std::move(onTick)),
      clock_(clock ? std::move(clock) : Clock([] { return std::chrono::steady_clock::now(); })) {}

Chronometer::~Chronometer() = default;

void Chronometer::start(bool fireNow) {
  counted_ = {};
  since_ = clock_();
  running_ = true;
  paused_ = false;
  timer_ = Timer::repeating(queue_, interval_, [this] { tick(); });
  if (fireNow) tick();
}

void Chronometer::pause() {
  if (!running_ || paused_) return;
  counted_ += clock_() - since_;
  paused_ = true;
}

void Chronometer::resume() {
  if (!running_ || !paused_) return;
  since_ = clock_();
  paused_ = false;
}

void Chronometer::stop() {
  if (running_ && !paused_) counted_ += clock_() - since_;
  running_ = false;
  paused_ = false;
  timer_.reset();
}

double Chronometer::elapsed() const {
  auto total = counted_;
  if (running_ && !paused_) total += clock_() - since_;
  return std::chrono::duration<double>(total).count();
}

void Chronometer::tick() {
  if (running_ && !paused_ && onTick_) onTick_(elapsed());
}

}  // namespace nembra
