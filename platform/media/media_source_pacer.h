// Holds a source back to real time: an item stamped t seconds is let through t seconds after the
// first one, so that a file or a test pattern is sent as fast as a camera would deliver it.
//
// With a batch window the pacer wakes once per window rather than once per item: when it wakes
// for an item, it lets through with it every item due within the window after it. Samples that
// are already encoded lose nothing by going up to a window early, and the publishing threads
// then sleep through most of each second instead of waking per frame.
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
  explicit MediaSourcePacer(bool realTime, Clock::duration batchWindow = Clock::duration::zero())
      : realTime_(realTime), batchWindow_(batchWindow) {}

  // Blocks until |mediaTime| is due, or is within the batch window opened by the last wait.
  // Returns false when |stop| became true while waiting.
  bool waitUntilDue(double mediaTime, const std::atomic<bool>& stop);

  // When |mediaTime| is due, given that the first item (stamped |firstMediaTime|) was let
  // through at |anchor|. Earlier media times than the first are due at once.
  static Clock::time_point dueTime(Clock::time_point anchor, double firstMediaTime,
                                   double mediaTime);

  // How many times waitUntilDue has slept so far.
  uint64_t sleeps() const { return sleeps_; }

 private:
  bool realTime_;
  Clock::duration batchWindow_;
  std::optional<Clock::time_point> anchor_;
  double firstMediaTime_ = 0.0;
  // Items due up to here go without a wait: the batch opened by the last wake-up.
  Clock::time_point releasedUntil_;
  uint64_t sleeps_ = 0;
};

}  // namespace nembra
