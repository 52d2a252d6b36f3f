// The sound-level meter: a bar that rises at once to a louder reading and falls back by 0.05 a
// buffer. Drawn as the display-only slider "audio-level" (0..1) of the screen it is given.
//
// Threading: main queue only; levelOf is pure.
#pragma once

#include <cstddef>
#include <cstdint>

namespace nembra {

class ScreenView;

class AudioLevelView {
 public:
  static constexpr const char* kSlider = "audio-level";

  // The owner clears it (nullptr) before the view goes.
  void setView(ScreenView* view) { view_ = view; }

  double currentLevel() const { return currentLevel_; }
  double currentAudioLevel() const { return currentAudioLevel_; }
  // Stores the reading and updates the level shown.
  void setCurrentLevel(double level);
  // A louder reading is shown at once; otherwise the level shown falls by 0.05, not below 0.
  void updateLevel();

  // The level of a buffer of signed 16-bit samples (every channel): the mean absolute sample
  // over 10000, at most 1.0; 0 for no samples.
  static double levelOf(const int16_t* samples, size_t count);

 private:
  void draw();

  ScreenView* view_ = nullptr;
  double currentLevel_ = 0;
  double currentAudioLevel_ = 0;
};

}  // namespace nembra
