#include "platform/media/media_source_pacer.h"

#include <algorithm>
#include <thread>

namespace nembra {

namespace {

// Short enough that a stop is noticed soon, long enough not to wake needlessly.
constexpr auto kMaxSleep = std::chrono::milliseconds(100);

}  // namespace

MediaSourcePacer::Clock::time_point MediaSourcePacer::dueTime(Clock::time_point anchor,
                                                              double firstMediaTime,
                                                              double mediaTime) {
  const double offset = std::max(0.0, mediaTime - firstMediaTime);
  return anchor +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(offset));
}

bool MediaSourcePacer::waitUntilDue(double mediaTime, const std::atomic<bool>& stop) {
  if (stop.load()) return false;
  if (!realTime_) return true;
  if (!anchor_) {
    anchor_ = Clock::now();
    firstMediaTime_ = mediaTime;
    releasedUntil_ = *anchor_ + batchWindow_;
  }
  const Clock::time_point due = dueTime(*anchor_, firstMediaTime_, mediaTime);
  if (due <= releasedUntil_) return true;
  for (;;) {
    const auto now = Clock::now();
    if (now >= due) {
      releasedUntil_ = std::max(due, now) + batchWindow_;
      return true;
    }
    ++sleeps_;
    // An absolute deadline: time spent waking up is not added to every sleep.
    std::this_thread::sleep_until(std::min<Clock::time_point>(due, now + kMaxSleep));
    if (stop.load()) return false;
  }
}

}  // namespace nembra
