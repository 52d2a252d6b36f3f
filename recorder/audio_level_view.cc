#include "recorder/audio_level_view.h"

#include <algorithm>
#include <cstdlib>

#include "platform/ui/screen_view.h"

namespace nembra {

double AudioLevelView::levelOf(const int16_t* samples, size_t count) {
  if (!samples || count == 0) return 0;
  int64_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum += std::abs(static_cast<int32_t>(samples[i]));
  return std::min(1.0, static_cast<double>(sum) / static_cast<double>(count) / 10000.0);
}

void AudioLevelView::setCurrentLevel(double level) {
  currentLevel_ = level;
  updateLevel();
}

void AudioLevelView::updateLevel() {
  if (currentLevel_ > currentAudioLevel_) {
    currentAudioLevel_ = currentLevel_;
  } else {
    currentAudioLevel_ = std::max(0.0, currentAudioLevel_ - 0.05);
  }
  draw();
}

void AudioLevelView::draw() {
  if (!view_) return;
  SliderState state;
  state.value = currentAudioLevel_;
  state.enabled = false;  // a meter, not a control
  view_->setSlider(kSlider, state);
}

}  // namespace nembra
