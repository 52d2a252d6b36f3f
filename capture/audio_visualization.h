// The audio recorder's waveform: in write mode it collects the metering levels as they come and
// shows the newest; in read mode it shows a whole take's levels with the played part marked.
// Drawn as a line of text so the window, the terminal and the headless view all show it.
//
// Threading: main queue only.
#pragma once

#include <string>
#include <vector>

namespace nembra {

class AudioVisualization {
 public:
  enum class Mode { Write, Read };

  static constexpr int kWidth = 48;  // bars

  Mode mode() const { return mode_; }
  void setMode(Mode mode) { mode_ = mode; }

  // Write mode: a level 0..1 more.
  void add(float level);
  // The levels written so far, averaged or stretched into |width| bars and scaled so that the
  // loudest is 1 (all zero for silence).
  std::vector<float> scaleSoundDataToFitScreen(int width = kWidth) const;

  // Read mode: the take's levels, and how far playback has got (0..1).
  void setMeteringLevels(std::vector<float> levels) { meteringLevels_ = std::move(levels); }
  void setProgress(double fraction) { progress_ = fraction; }
  void play(double duration);
  void pause() { playing_ = false; }
  bool playing() const { return playing_; }
  double playDuration() const { return playDuration_; }

  // Back to an empty write-mode waveform.
  void reset();

  std::string render() const;

 private:
  Mode mode_ = Mode::Write;
  std::vector<float> written_;
  std::vector<float> meteringLevels_;
  double progress_ = 0;
  double playDuration_ = 0;
  bool playing_ = false;
};

}  // namespace nembra
