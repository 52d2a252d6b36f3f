#include "platform/audio/null_audio_output.h"

#include <algorithm>

#include "platform/dispatch/thread_name.h"

namespace nembra {
namespace {
// A device asks for about this much at a time.
constexpr double kChunkSeconds = 0.02;
}  // namespace

NullAudioOutput::~NullAudioOutput() { stop(); }

OptionalError NullAudioOutput::start(const AudioSpec& wanted, Fill fill) {
  stop();
  if (wanted.sampleRate <= 0 || wanted.channels <= 0) {
    return Error::invalidArgument("audio output: no sample rate or channel count");
  }
  spec_ = wanted;
  fill_ = std::move(fill);
  {
    std::lock_guard lock(mutex_);
    stopping_ = false;
    paused_ = true;
    chunkSeconds_ = 0;
  }
  thread_ = std::thread([this] { loop(); });
  return std::nullopt;
}

void NullAudioOutput::pause(bool paused) {
  std::unique_lock lock(mutex_);
  // As with a device, a pause returns once a fill in progress has ended: none comes after it.
  if (paused) wake_.wait(lock, [this] { return !filling_; });
  if (paused && !paused_ && chunkSeconds_ > 0) {
    // What is left of the chunk playing now plays out after the pause, so the clock neither
    // jumps back now nor forward at resume.
    const double played = std::chrono::duration<double>(Clock::now() - chunkStart_).count();
    chunkSeconds_ = std::max(0.0, chunkSeconds_ - played);
  }
  paused_ = paused;
  wake_.notify_all();
}

void NullAudioOutput::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
  std::lock_guard lock(mutex_);
  chunkSeconds_ = 0;
}

double NullAudioOutput::bufferedSeconds() const {
  std::lock_guard lock(mutex_);
  if (chunkSeconds_ <= 0) return 0;
  if (paused_) return chunkSeconds_;  // nothing is heard while paused
  const double played = std::chrono::duration<double>(Clock::now() - chunkStart_).count();
  return std::max(0.0, chunkSeconds_ - played);
}

void NullAudioOutput::loop() {
  setCurrentThreadName("com.nembra.audio");
  const auto frames = static_cast<size_t>(spec_.sampleRate * kChunkSeconds);
  std::vector<int16_t> samples(frames * static_cast<size_t>(spec_.channels));
  auto next = Clock::now();
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (paused_) {
      wake_.wait(lock, [this] { return stopping_ || !paused_; });
      chunkStart_ = Clock::now();
      next = chunkStart_ + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(chunkSeconds_));
      wake_.wait_until(lock, next, [this] { return stopping_ || paused_; });
      continue;
    }
    filling_ = true;
    lock.unlock();
    std::fill(samples.begin(), samples.end(), 0);
    fill_(samples.data(), frames);
    lock.lock();
    filling_ = false;
    chunkStart_ = Clock::now();
    chunkSeconds_ = kChunkSeconds;
    wake_.notify_all();
    next +=
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kChunkSeconds));
    wake_.wait_until(lock, next, [this] { return stopping_ || paused_; });
  }
}

std::unique_ptr<AudioOutput> makeNullAudioOutput() { return std::make_unique<NullAudioOutput>(); }

}  // namespace nembra
