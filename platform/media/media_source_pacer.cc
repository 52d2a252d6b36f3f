#include "platform/media/media_source_pacer.h"

#include <algorithm>
#include <thread>

namespace nembra {

namespace {

// Short enough that a stop is noticed at once, long enough not to spin.
constexpr auto kMaxSleep = std::chrono::milliseconds(50);

}  // namespace

MediaSourcePacer::Clock::time_point MediaSourcePacer::dueTime(Clock::time_point anchor,
                                                              double firstMediaTime,
                                                              double mediaTime) {
  const double offset = std::max(0.0, mediaTime - firstMediaTime);
  return anchor +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(offset));
}

bool MediaSourcePacer::waitUntilDue(double mediaTime, const std::atomic<bool>& stop) {
  if (!realTime_) return !stop.load();
  if (!anchor_) {
    anchor_ = Clock::now();
    firstMediaTime_ = mediaTime;
  }
  const Clock::time_point due = dueTime(*anchor_, firstMediaTime_, mediaTime);
  for (;;) {
    if (stop.load()) return false;
    const auto now = Clock::now();
    if (now >= due) return true;
    std::this_thread::sleep_for(std::min<Clock::duration>(due - now, kMaxSleep));
  }
}

}  // namespace nembra
