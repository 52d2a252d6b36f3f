// The null audio output, always opened at 48 kHz stereo whatever is asked (so the player has to
// resample), remembering how loud what it was given was and how often it pulled.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>

#include "platform/audio/audio_output.h"

namespace nembra::testing {

class RealtimeAudioOutput final : public AudioOutput {
 public:
  OptionalError start(const AudioSpec&, Fill fill) override {
    return inner_->start({48000, 2},
                         [this, fill = std::move(fill)](int16_t* samples, size_t frames) {
                           fill(samples, frames);
                           int loudest = 0;
                           for (size_t i = 0; i < frames * 2; ++i) {
                             loudest = std::max(loudest, std::abs(int{samples[i]}));
                           }
                           peak_.store(std::max(peak_.load(), loudest));
                           pulls_.fetch_add(1);
                         });
  }
  AudioSpec spec() const override { return inner_->spec(); }
  void pause(bool paused) override { inner_->pause(paused); }
  void stop() override { inner_->stop(); }
  double bufferedSeconds() const override { return inner_->bufferedSeconds(); }
  void setVolume(float volume) override { inner_->setVolume(volume); }

  int peak() const { return peak_.load(); }
  void resetPeak() { peak_.store(0); }
  int64_t pulls() const { return pulls_.load(); }

 private:
  std::atomic<int> peak_{0};
  std::atomic<int64_t> pulls_{0};
  // Declared last: stopped and joined first, while the counters above still exist.
  std::unique_ptr<AudioOutput> inner_ = makeNullAudioOutput();
};

}  // namespace nembra::testing
