// Feeds the audio output from the audio FrameQueue: resamples each decoded frame to the
// output's rate, channel count and signed 16-bit samples with swresample, and sets the audio
// clock (the master clock) to the time of the sound being heard each time the output pulls.
//
// Threading: start/stop/setMuted from the session's owner; fill runs on the output's thread
// ("com.nembra.audio"), which is the FrameQueue's consumer; drained/handedUntil from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "nembra/error.h"
#include "platform/audio/audio_output.h"
#include "platform/ffmpeg/ffmpeg_clock.h"
#include "platform/ffmpeg/ffmpeg_frame_queue.h"
#include "platform/ffmpeg/ffmpeg_packet_queue.h"

struct SwrContext;

namespace nembra::player {

class AudioRenderer {
 public:
  // |afterFill| runs on the output's thread after each pull.
  AudioRenderer(FrameQueue& frames, const PacketQueue& packets, Clock& clock,
                std::function<void()> afterFill);
  ~AudioRenderer();
  AudioRenderer(const AudioRenderer&) = delete;
  AudioRenderer& operator=(const AudioRenderer&) = delete;

  // Starts |output| (paused) for sound of |sampleRate| Hz and |channels| channels.
  OptionalError start(AudioOutput& output, int sampleRate, int channels);
  // Stops the output; fill is not called after this returns.
  void stop();
  void setMuted(bool muted) { muted_.store(muted); }

  // True when every frame of |serial| queued so far has been handed to the output.
  bool drained(int serial) const;
  // The item time at which the sound handed over so far ends.
  double handedUntil() const { return handedUntil_.load(); }
  // Seconds the output has been pulling without getting any sound (0 while it gets some).
  double starvedFor() const;
  // The serial of the last sound handed over, -1 before any.
  int handedSerial() const { return handedSerial_.load(); }

 private:
  void fill(int16_t* samples, size_t frames);
  // Resamples the next frame of |serial| into pending_; false when there is none.
  bool nextChunk(int serial);

  FrameQueue& frames_;
  const PacketQueue& packets_;
  Clock& clock_;
  const std::function<void()> afterFill_;
  AudioOutput* output_ = nullptr;
  AudioSpec spec_;
  std::atomic<bool> muted_{false};

  // Output thread only.
  SwrContext* resampler_ = nullptr;
  int resamplerRate_ = 0;
  int resamplerFormat_ = -1;
  uint64_t resamplerLayout_ = 0;
  int resamplerChannels_ = 0;
  std::vector<int16_t> pending_;  // resampled, interleaved, not yet handed over
  size_t pendingFrom_ = 0;        // in samples
  int chunkSerial_ = -1;
  double chunkEnd_ = 0;  // item time at the end of pending_

  std::atomic<int> drainedSerial_{-1};
  std::atomic<double> handedUntil_{0};
  std::atomic<int> handedSerial_{-1};
  std::atomic<double> emptySince_{-1};  // Clock::now() of the first empty pull in a row
};

}  // namespace nembra::player
