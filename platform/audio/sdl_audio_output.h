// An AudioOutput on SDL2's audio device (PulseAudio, PipeWire or ALSA underneath). SDL's own
// callback thread pulls the samples; the clock's lag is the device buffer the last fill went
// into, less the time since.
//
// Threading: as AudioOutput; |fill| runs on SDL's audio thread.
#pragma once

#include <SDL.h>

#include <atomic>
#include <chrono>
#include <mutex>

#include "platform/audio/audio_output.h"

namespace nembra {

class SdlAudioOutput final : public AudioOutput {
 public:
  SdlAudioOutput() = default;
  ~SdlAudioOutput() override;

  OptionalError start(const AudioSpec& wanted, Fill fill) override;
  AudioSpec spec() const override { return spec_; }
  void pause(bool paused) override;
  void stop() override;
  double bufferedSeconds() const override;
  void setVolume(float volume) override { volume_ = volume; }

 private:
  using Clock = std::chrono::steady_clock;
  static void callback(void* self, Uint8* stream, int length);

  AudioSpec spec_;
  Fill fill_;
  SDL_AudioDeviceID device_ = 0;
  bool initialised_ = false;
  bool paused_ = true;
  std::atomic<float> volume_{1.0f};
  double deviceBufferSeconds_ = 0;
  mutable std::mutex mutex_;
  Clock::time_point lastFill_;  // guarded by mutex_
  double lastFillSeconds_ = 0;  // guarded by mutex_
};

}  // namespace nembra
