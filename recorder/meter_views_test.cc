// The light meter's thresholds and blinking, the sound meter's level formula and decay, and the
// scalable constraint, drawn into a headless view.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "platform/ui/headless_screen_view.h"
#include "recorder/audio_level_view.h"
#include "recorder/lux_meter_view.h"
#include "recorder/scalable_constraint.h"
#include "recorder/testing/test_frames.h"

namespace nembra {
namespace {

struct BrightnessCase {
  double brightness;
  const char* image;
  bool blinks;
};

TEST(LuxMeterViewTest, PicksTheSunByThresholdAndBlinksOnlyInPoorLight) {
  const BrightnessCase cases[] = {
      {-3.0, "sun-red", true},   {-0.5001, "sun-red", true},   {-0.5, "sun-yellow", true},
      {0.0, "sun-yellow", true}, {0.9999, "sun-yellow", true}, {1.0, "sun-white", false},
      {7.5, "sun-white", false},
  };
  for (const BrightnessCase& c : cases) {
    SCOPED_TRACE(c.brightness);
    HeadlessScreenView view("recorder");
    LuxMeterView meter;
    meter.setImageView(&view);
    std::vector<bool> hidden;
    for (int update = 0; update < 4; ++update) {
      meter.setCurrentLuminousity(c.brightness);
      auto button = view.button(LuxMeterView::kButton);
      ASSERT_TRUE(button);
      EXPECT_EQ(button->image, c.image);
      EXPECT_FALSE(button->enabled);
      hidden.push_back(button->hidden);
    }
    if (c.blinks) {
      EXPECT_EQ(hidden, (std::vector<bool>{true, false, true, false}));
    } else {
      EXPECT_EQ(hidden, (std::vector<bool>{false, false, false, false}));
    }
  }
}

TEST(LuxMeterViewTest, WithoutAViewOnlyTheValueIsKept) {
  LuxMeterView meter;
  meter.setCurrentLuminousity(-2);
  EXPECT_EQ(meter.currentLuminousity(), -2);
  EXPECT_EQ(meter.image(), "");
}

TEST(LuxMeterViewTest, BrightnessFollowsTheFramesMeanLumaInStops) {
  // Mid-grey reads two stops, each halving of the luma one stop less.
  EXPECT_NEAR(LuxMeterView::brightnessOfFrame(*testing::solidFrame(64, 48, 118)), 2.0, 1e-9);
  EXPECT_NEAR(LuxMeterView::brightnessOfFrame(*testing::solidFrame(64, 48, 59)), 1.0, 1e-9);
  EXPECT_NEAR(LuxMeterView::brightnessOfLuma(29.5), 0.0, 1e-9);
  // A dim room shows red, a lit one white; a black frame still gives a finite value.
  EXPECT_EQ(
      LuxMeterView::imageFor(LuxMeterView::brightnessOfFrame(*testing::solidFrame(32, 32, 16))),
      "sun-red");
  EXPECT_EQ(
      LuxMeterView::imageFor(LuxMeterView::brightnessOfFrame(*testing::solidFrame(32, 32, 200))),
      "sun-white");
  EXPECT_TRUE(std::isfinite(LuxMeterView::brightnessOfFrame(*testing::solidFrame(32, 32, 0))));
  // Half black, half white averages.
  auto split = testing::solidFrame(64, 64, 0);
  for (int y = 0; y < 64; ++y) std::fill_n(&split->planes[0][y * 64], 32, uint8_t{236});
  EXPECT_NEAR(LuxMeterView::meanLuma(*split), 118, 1e-9);
}

TEST(AudioLevelViewTest, LevelIsTheMeanAbsoluteSampleOverTenThousandCappedAtOne) {
  struct Case {
    std::vector<int16_t> samples;
    double level;
  };
  const Case cases[] = {
      {{}, 0.0},
      {{0, 0, 0, 0}, 0.0},
      {{5000, -5000, 5000, -5000}, 0.5},
      {{1000, -3000}, 0.2},
      {{32767, -32768}, 1.0},
      {{-32768, -32768, 0, 0}, 1.0},  // 16384 a sample: capped
      {{12000, 8000, 0, 0}, 0.5},
  };
  for (const Case& c : cases) {
    EXPECT_DOUBLE_EQ(AudioLevelView::levelOf(c.samples.data(), c.samples.size()), c.level);
  }
}

TEST(AudioLevelViewTest, RisesAtOnceAndFallsByFiveHundredthsPerBuffer) {
  HeadlessScreenView view("recorder");
  AudioLevelView meter;
  meter.setView(&view);
  meter.setCurrentLevel(1.0);
  EXPECT_DOUBLE_EQ(meter.currentAudioLevel(), 1.0);
  std::vector<double> shown;
  for (int buffer = 0; buffer < 21; ++buffer) {
    meter.setCurrentLevel(0.0);
    shown.push_back(view.slider(AudioLevelView::kSlider)->value);
  }
  for (size_t i = 0; i < 20; ++i) EXPECT_NEAR(shown[i], 0.95 - 0.05 * i, 1e-9) << i;
  EXPECT_EQ(shown[20], 0.0);  // never below zero
  // A quieter reading than shown still only lowers it by the step.
  meter.setCurrentLevel(0.6);
  meter.setCurrentLevel(0.3);
  EXPECT_NEAR(meter.currentAudioLevel(), 0.55, 1e-9);
  EXPECT_DOUBLE_EQ(meter.currentLevel(), 0.3);
}

TEST(ScalableConstraintTest, ConstantIsScaleTimesBasicConstantAfterEitherChanges) {
  std::vector<double> applied;
  ScalableConstraint constraint([&](double constant) { applied.push_back(constant); });
  EXPECT_EQ(constraint.scale(), 1.0);
  constraint.setBasicConstant(44);
  constraint.setScale(1.5);
  constraint.setBasicConstant(10);
  EXPECT_EQ(applied, (std::vector<double>{44, 66, 15}));
  EXPECT_EQ(constraint.constant(), 15);
}

}  // namespace
}  // namespace nembra
