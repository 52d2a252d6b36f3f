// Holds a source back to real time: an item stamped t seconds is let through t seconds after the
// first one, so that a file or a test pattern is sent as fast as a camera would deliver it.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>

namespace nembra {

// Threading: one caller (the capture thread); |stop| may be set from any thread.
class MediaSourcePacer {
 public:
  using Clock = std::chrono::steady_clock;

  // A pacer that is not |realTime| lets everything through at once.
  explicit MediaSourcePacer(bool realTime) : realTime_(realTime) {}

  // Blocks until |mediaTime| is due. Returns false when |stop| became true while waiting.
  bool waitUntilDue(double mediaTime, const std::atomic<bool>& stop);

  // When |mediaTime| is due, given that the first item (stamped |firstMediaTime|) was let
  // through at |anchor|. Earlier media times than the first are due at once.
  static Clock::time_point dueTime(Clock::time_point anchor, double firstMediaTime,
                                   double mediaTime);

 private:
  bool realTime_;
  std::optional<Clock::time_point> anchor_;
  double firstMediaTime_ = 0.0;
};

}  // namespace nembra
