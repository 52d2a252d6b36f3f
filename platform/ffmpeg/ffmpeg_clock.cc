#include "platform/ffmpeg/ffmpeg_clock.h"

#include <chrono>
#include <cmath>

namespace nembra::player {

double Clock::now() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

double Clock::get(int currentSerial) const {
  std::lock_guard lock(mutex_);
  if (serial_ != currentSerial) return NAN;
  return timeLocked(now());
}

double Clock::time() const {
  std::lock_guard lock(mutex_);
  return timeLocked(now());
}

double Clock::timeLocked(double at) const {
  if (!set_) return NAN;
  return paused_ ? pts_ : drift_ + at;
}

void Clock::setAt(double pts, int serial, double at) {
  std::lock_guard lock(mutex_);
  pts_ = pts;
  drift_ = pts - at;
  serial_ = serial;
  set_ = true;
}

void Clock::setPaused(bool paused) {
  std::lock_guard lock(mutex_);
  if (paused == paused_) return;
  const double at = now();
  if (paused) {
    pts_ = timeLocked(at);
  } else {
    drift_ = pts_ - at;  // resume from where it stopped
  }
  paused_ = paused;
}

bool Clock::paused() const {
  std::lock_guard lock(mutex_);
  return paused_;
}

int Clock::serial() const {
  std::lock_guard lock(mutex_);
  return serial_;
}

}  // namespace nembra::player
