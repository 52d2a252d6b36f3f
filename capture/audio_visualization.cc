#include "capture/audio_visualization.h"

#include <algorithm>
#include <cmath>

namespace nembra {

namespace {

// Quiet to loud.
constexpr char kRamp[] = " .:-=+*#%@";
constexpr int kSteps = sizeof kRamp - 2;

char bar(float level) {
  const int step = static_cast<int>(std::lround(std::clamp(level, 0.0f, 1.0f) * kSteps));
  return kRamp[step];
}

}  // namespace

void AudioVisualization::add(float level) { written_.push_back(std::clamp(level, 0.0f, 1.0f)); }

std::vector<float> AudioVisualization::scaleSoundDataToFitScreen(int width) const {
  std::vector<float> bars(static_cast<size_t>(std::max(width, 0)), 0.0f);
  if (written_.empty() || bars.empty()) return bars;
  const size_t count = written_.size();
  for (size_t i = 0; i < bars.size(); ++i) {
    // The bar covers written_[begin, end); a short take repeats levels rather than leave gaps.
    size_t begin = i * count / bars.size();
    size_t end = std::max(begin + 1, (i + 1) * count / bars.size());
    float sum = 0;
    for (size_t j = begin; j < end && j < count; ++j) sum += written_[j];
    bars[i] = sum / static_cast<float>(end - begin);
  }
  const float loudest = *std::max_element(bars.begin(), bars.end());
  if (loudest > 0) {
    for (float& b : bars) b /= loudest;
  }
  return bars;
}

void AudioVisualization::play(double duration) {
  playDuration_ = duration;
  playing_ = true;
}

void AudioVisualization::reset() {
  mode_ = Mode::Write;
  written_.clear();
  meteringLevels_.clear();
  progress_ = 0;
  playDuration_ = 0;
  playing_ = false;
}

std::string AudioVisualization::render() const {
  std::string line;
  if (mode_ == Mode::Write) {
    const size_t first = written_.size() > kWidth ? written_.size() - kWidth : 0;
    for (size_t i = first; i < written_.size(); ++i) line += bar(written_[i]);
    return line;
  }
  const size_t played = static_cast<size_t>(
      std::lround(std::clamp(progress_, 0.0, 1.0) * static_cast<double>(meteringLevels_.size())));
  for (size_t i = 0; i < meteringLevels_.size(); ++i) {
    line += i == played && progress_ > 0 && progress_ < 1 ? '|' : bar(meteringLevels_[i]);
  }
  return line;
}

}  // namespace nembra
