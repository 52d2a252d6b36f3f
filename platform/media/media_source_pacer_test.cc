#include "platform/media/media_source_pacer.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

using Clock = MediaSourcePacer::Clock;
using std::chrono::milliseconds;

// 30 items 10 ms apart: 290 ms of media.
struct Paced {
  Clock::duration elapsed;
  uint64_t sleeps;
  bool neverEarlierThanTheWindow = true;
};

Paced pace(Clock::duration window) {
  MediaSourcePacer pacer(true, window);
  std::atomic<bool> stop{false};
  const auto start = Clock::now();
  Paced paced{};
  for (int i = 0; i < 30; ++i) {
    EXPECT_TRUE(pacer.waitUntilDue(5.0 + i * 0.010, stop));
    if (Clock::now() + window < start + milliseconds(10 * i))
      paced.neverEarlierThanTheWindow = false;
  }
  paced.elapsed = Clock::now() - start;
  paced.sleeps = pacer.sleeps();
  return paced;
}

TEST(MediaSourcePacerBatchTest, AWindowLetsItemsThroughInBatchesNeverEarlierThanTheWindow) {
  Paced each = pace(Clock::duration::zero());
  EXPECT_GE(each.elapsed, milliseconds(290));
  EXPECT_GE(each.sleeps, 29u) << "one wait per item without a window";

  Paced batched = pace(milliseconds(100));
  EXPECT_GE(batched.elapsed, milliseconds(190)) << "still held back to real time";
  EXPECT_LE(batched.sleeps, 4u);
  EXPECT_TRUE(batched.neverEarlierThanTheWindow);
}

TEST(MediaSourcePacerBatchTest, AStopEndsAWaitAndEveryLaterOne) {
  MediaSourcePacer pacer(true, milliseconds(50));
  std::atomic<bool> stop{false};
  EXPECT_TRUE(pacer.waitUntilDue(0.0, stop));
  stop.store(true);
  const auto start = Clock::now();
  EXPECT_FALSE(pacer.waitUntilDue(30.0, stop));
  EXPECT_FALSE(pacer.waitUntilDue(0.01, stop)) << "even inside the open window";
  EXPECT_LT(Clock::now() - start, milliseconds(500));
}

}  // namespace
}  // namespace nembra
