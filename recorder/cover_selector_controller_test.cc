#include "recorder/cover_selector_controller.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

TEST(CoverSelectorTimesTest, EveryFourSecondsBelowTheDurationInItsOwnTimescale) {
  struct Case {
    int64_t duration;
    int32_t timescale;
    std::vector<int64_t> times;
  };
  for (const Case& c :
       std::initializer_list<Case>{{3999, 1000, {0}},               // shorter than 4 s: one cover
                                   {8000, 1000, {0, 4000}},         // exactly 8 s: not at 8
                                   {10000, 1000, {0, 4000, 8000}},  // 10 s: 0, 4 and 8
                                   {5400, 600, {0, 2400, 4800}},    // another timescale, 9 s
                                   {0, 1000, {}}}) {
    EXPECT_EQ(CoverSelectorController::coverTimes(c.duration, c.timescale), c.times)
        << c.duration << "/" << c.timescale;
  }
}

TEST(CoverSelectorTimesTest, TheDefaultCoverIsTheMiddleTruncated) {
  EXPECT_EQ(CoverSelectorController::defaultCoverTime(10000), 5000);
  EXPECT_EQ(CoverSelectorController::defaultCoverTime(3001), 1500);
  EXPECT_EQ(CoverSelectorController::defaultCoverTime(1), 0);
}

}  // namespace
}  // namespace nembra
