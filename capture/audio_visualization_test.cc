#include "capture/audio_visualization.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace nembra {
namespace {

TEST(AudioVisualizationTest, LevelsAreScaledToFitTheWidthWithTheLoudestAtOne) {
  struct Case {
    size_t written;
    float level;
  } cases[] = {{3, 0.25f}, {48, 0.5f}, {1000, 0.1f}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.written);
    AudioVisualization waveform;
    for (size_t i = 0; i < c.written; ++i) waveform.add(c.level * static_cast<float>(i + 1));
    const auto bars = waveform.scaleSoundDataToFitScreen(48);
    ASSERT_EQ(bars.size(), 48u);
    EXPECT_FLOAT_EQ(*std::max_element(bars.begin(), bars.end()), 1.0f);
    // A short take is stretched, never left with silent gaps; the rise is kept.
    EXPECT_GT(*std::min_element(bars.begin(), bars.end()), 0.0f);
    EXPECT_TRUE(std::is_sorted(bars.begin(), bars.end()));
  }
  AudioVisualization silent;
  silent.add(0);
  for (float bar : silent.scaleSoundDataToFitScreen(8)) EXPECT_EQ(bar, 0.0f);
}

TEST(AudioVisualizationTest, ReadModeMarksHowFarPlaybackHasGot) {
  AudioVisualization waveform;
  waveform.setMode(AudioVisualization::Mode::Read);
  waveform.setMeteringLevels(std::vector<float>(10, 1.0f));
  waveform.setProgress(0.5);
  EXPECT_EQ(waveform.render(), "@@@@@|@@@@");
  waveform.reset();
  EXPECT_EQ(waveform.mode(), AudioVisualization::Mode::Write);
  EXPECT_EQ(waveform.render(), "");
}

}  // namespace
}  // namespace nembra
