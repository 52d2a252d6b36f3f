// An AudioOutput without a device that consumes samples in real time: a thread
// ("com.nembra.audio") pulls one 10 ms period at a time, as a sound card would, and remembers
// how loud what it got was. It always runs at 48 kHz stereo, whatever is asked, so the player
// has to resample.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/audio/audio_output.h"
#include "platform/dispatch/thread_name.h"

namespace nembra::testing {

class RealtimeAudioOutput final : public AudioOutput {
 public:
  static constexpr int kPeriodFrames = 480;

  ~RealtimeAudioOutput() override { stop(); }

  OptionalError start(const AudioSpec&, Fill fill) override {
    stop();
    fill_ = std::move(fill);
    paused_.store(true);
    stopping_.store(false);
    thread_ = std::thread([this] { run(); });
    return std::nullopt;
  }
  AudioSpec spec() const override { return {48000, 2}; }
  void pause(bool paused) override { paused_.store(paused); }
  void stop() override {
    stopping_.store(true);
    if (thread_.joinable()) thread_.join();
  }
  // One period is held by the "device" after each pull, draining in real time.
  double bufferedSeconds() const override {
    std::lock_guard lock(mutex_);
    if (lastPull_ == Clock::time_point{}) return 0;
    const double held = static_cast<double>(kPeriodFrames) / 48000;
    const double since =
        paused_.load() ? 0 : std::chrono::duration<double>(Clock::now() - lastPull_).count();
    return std::max(0.0, held - since);
  }
  void setVolume(float) override {}

  int peak() const { return peak_.load(); }
  void resetPeak() { peak_.store(0); }
  int64_t pulls() const { return pulls_.load(); }

 private:
  using Clock = std::chrono::steady_clock;

  void run() {
    setCurrentThreadName("com.nembra.audio");
    std::vector<int16_t> buffer(kPeriodFrames * 2);
    const auto period = std::chrono::microseconds(1000000LL * kPeriodFrames / 48000);
    auto due = Clock::now();
    while (!stopping_.load()) {
      if (paused_.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        due = Clock::now();
        continue;
      }
      fill_(buffer.data(), kPeriodFrames);
      {
        std::lock_guard lock(mutex_);
        lastPull_ = Clock::now();
      }
      int loudest = 0;
      for (int16_t sample : buffer) loudest = std::max(loudest, std::abs(int{sample}));
      peak_.store(std::max(peak_.load(), loudest));
      pulls_.fetch_add(1);
      due += period;
      std::this_thread::sleep_until(due);
    }
  }

  Fill fill_;
  std::atomic<bool> paused_{true};
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  Clock::time_point lastPull_;
  std::atomic<int> peak_{0};
  std::atomic<int64_t> pulls_{0};
  std::thread thread_;
};

}  // namespace nembra::testing
