// PCM playback. The output pulls signed 16-bit interleaved samples from its owner through a
// fill callback, on a thread of its own, whenever the device wants more: the player engine's
// audio clock is what it has handed over minus what the listener has not heard yet
// (bufferedSeconds), as ffplay's is.
//
// Two implementations: the SDL device (PulseAudio, PipeWire or ALSA underneath) and a null
// output that consumes samples in real time where no device exists, so playback still keeps
// time on a machine without sound.
//
// Threading: start/pause/stop from one owner thread; |fill| runs on the output's thread
// ("com.nembra.audio"); bufferedSeconds from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "nembra/error.h"

namespace nembra {

struct AudioSpec {
  int sampleRate = 48000;
  int channels = 2;
};

class AudioOutput {
 public:
  // Fills |frames| frames (|frames| × channels samples) at |samples|; silence where there is
  // nothing to play.
  using Fill = std::function<void(int16_t* samples, size_t frames)>;

  virtual ~AudioOutput() = default;

  // Opens the device for |wanted| (the device may choose another rate or channel count: read
  // spec() afterwards) and starts pulling, paused until pause(false).
  virtual OptionalError start(const AudioSpec& wanted, Fill fill) = 0;
  virtual AudioSpec spec() const = 0;
  // Pausing waits for a fill in progress: |fill| is not called again until pause(false). Never
  // called from |fill|.
  virtual void pause(bool paused) = 0;
  // Stops pulling; |fill| is not called after this returns.
  virtual void stop() = 0;
  // Seconds of audio handed over by |fill| that have not been heard yet.
  virtual double bufferedSeconds() const = 0;
  // 0 (silent) to 1 (as decoded).
  virtual void setVolume(float volume) = 0;
};

// The SDL device output (opened at start(); start() fails with a message when there is no
// device) and the real-time null output.
std::unique_ptr<AudioOutput> makeSdlAudioOutput();
std::unique_ptr<AudioOutput> makeNullAudioOutput();

// An output whose start() tries the SDL device first and falls back to the null output, so a
// player keeps time on a machine without sound.
std::unique_ptr<AudioOutput> makeAudioOutput();

}  // namespace nembra
