// An AudioOutput with no device: a thread pulls samples at the rate a device would and drops
// them, so bufferedSeconds and the clock built on it advance in real time.
//
// Threading: as AudioOutput; the pulling thread is "com.nembra.audio".
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/audio/audio_output.h"

namespace nembra {

class NullAudioOutput final : public AudioOutput {
 public:
  NullAudioOutput() = default;
  ~NullAudioOutput() override;

  OptionalError start(const AudioSpec& wanted, Fill fill) override;
  AudioSpec spec() const override { return spec_; }
  void pause(bool paused) override;
  void stop() override;
  double bufferedSeconds() const override;
  void setVolume(float volume) override { (void)volume; }

 private:
  using Clock = std::chrono::steady_clock;
  void loop();

  AudioSpec spec_;
  Fill fill_;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  bool paused_ = true;            // guarded by mutex_
  bool stopping_ = false;         // guarded by mutex_
  bool filling_ = false;          // a fill is running, outside the lock; guarded by mutex_
  Clock::time_point chunkStart_;  // when the last chunk began playing; guarded by mutex_
  double chunkSeconds_ = 0;       // guarded by mutex_
};

}  // namespace nembra
