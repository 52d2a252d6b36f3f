// An AudioOutput that plays on the SDL device when one opens and otherwise through the null
// output, deciding at each start().
//
// Threading: as AudioOutput.
#pragma once

#include <memory>

#include "platform/audio/audio_output.h"

namespace nembra {

class FallbackAudioOutput final : public AudioOutput {
 public:
  OptionalError start(const AudioSpec& wanted, Fill fill) override;
  AudioSpec spec() const override { return active_ ? active_->spec() : AudioSpec{}; }
  void pause(bool paused) override;
  void stop() override;
  double bufferedSeconds() const override { return active_ ? active_->bufferedSeconds() : 0; }
  void setVolume(float volume) override;
  // Whether the last start() found a device.
  bool usesDevice() const { return usesDevice_; }

 private:
  std::unique_ptr<AudioOutput> active_;
  bool usesDevice_ = false;
  float volume_ = 1.0f;
};

}  // namespace nembra
