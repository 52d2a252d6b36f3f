#include "platform/audio/audio_output.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>
#include <vector>

namespace nembra {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

// Counts what an output pulls and notices a fill that comes after stop() returned.
struct Consumer {
  std::atomic<size_t> frames{0};
  std::atomic<bool> stopped{false};
  std::atomic<bool> filledAfterStop{false};
  std::chrono::milliseconds work{0};

  AudioOutput::Fill fill() {
    return [this](int16_t*, size_t count) {
      if (stopped) filledAfterStop = true;
      if (work.count() > 0) std::this_thread::sleep_for(work);
      frames += count;
    };
  }
  // The audio clock a player derives: seconds handed over less what is still buffered. Only
  // exact while no fill is running, i.e. paused.
  double clock(const AudioOutput& output, int rate) const {
    return double(frames.load()) / rate - output.bufferedSeconds();
  }
};

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout = 5s) {
  const auto end = Clock::now() + timeout;
  while (!done()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

TEST(NullAudioOutputTest, PullsInRealTimeOnlyWhilePlaying) {
  auto output = makeNullAudioOutput();
  Consumer consumer;
  ASSERT_FALSE(output->start({8000, 1}, consumer.fill()));
  EXPECT_EQ(output->spec().sampleRate, 8000);
  EXPECT_EQ(output->spec().channels, 1);
  // Started paused: nothing is pulled.
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(consumer.frames, 0u);
  EXPECT_EQ(output->bufferedSeconds(), 0);

  const auto started = Clock::now();
  output->pause(false);
  std::this_thread::sleep_for(600ms);
  // Never ahead of real time by more than one device chunk; behind only by scheduling delay,
  // which a loaded machine makes large, hence the generous lower bound.
  double handed = double(consumer.frames.load()) / 8000;
  double elapsed = secondsSince(started);
  EXPECT_LE(handed, elapsed + 0.03);
  EXPECT_GE(handed, elapsed - 0.3);
  const double buffered = output->bufferedSeconds();
  EXPECT_GE(buffered, 0);
  EXPECT_LE(buffered, 0.021);

  output->pause(true);
  const double playedBeforePause = secondsSince(started);
  const size_t atPause = consumer.frames;
  const double clockAtPause = consumer.clock(*output, 8000);
  EXPECT_LE(clockAtPause, playedBeforePause + 0.005);
  EXPECT_GE(clockAtPause, playedBeforePause - 0.3);
  std::this_thread::sleep_for(300ms);
  // Paused: no pull, and the clock stands still.
  EXPECT_EQ(consumer.frames, atPause);
  EXPECT_DOUBLE_EQ(consumer.clock(*output, 8000), clockAtPause);

  const auto resumed = Clock::now();
  output->pause(false);
  std::this_thread::sleep_for(400ms);
  output->pause(true);
  const double playedAfterResume = secondsSince(resumed);
  // The pause is not counted, and the clock carries on from where it stood.
  const double clock = consumer.clock(*output, 8000);
  EXPECT_LE(clock, clockAtPause + playedAfterResume + 0.005);
  EXPECT_GE(clock, clockAtPause + playedAfterResume - 0.3);

  output->stop();
  EXPECT_EQ(output->bufferedSeconds(), 0);
}

TEST(NullAudioOutputTest, NoFillAfterStopReturnsAndBadSpecsAreRefused) {
  auto output = makeNullAudioOutput();
  for (int round = 0; round < 5; ++round) {
    Consumer consumer;
    consumer.work = 3ms;  // stop() is likely to land during a fill
    ASSERT_FALSE(output->start({48000, 2}, consumer.fill()));
    output->pause(false);
    ASSERT_TRUE(waitFor([&] { return consumer.frames > 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(round * 7));
    output->stop();
    consumer.stopped = true;
    std::this_thread::sleep_for(60ms);
    EXPECT_FALSE(consumer.filledAfterStop) << "round " << round;
  }
  Consumer consumer;
  auto error = output->start({0, 2}, consumer.fill());
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->message, "audio output: no sample rate or channel count");
}

// SDL's own device code path with its "disk" driver, which writes what the device would play to
// a file: no sound card needed, and the exact PCM can be checked.
class SdlDiskAudioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/nembra-audio-XXXXXX";
    const int fd = ::mkstemp(pattern);
    ASSERT_GE(fd, 0);
    ::close(fd);
    path_ = pattern;
    ::setenv("SDL_AUDIODRIVER", "disk", 1);
    ::setenv("SDL_DISKAUDIOFILE", path_.c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("SDL_AUDIODRIVER");
    ::unsetenv("SDL_DISKAUDIOFILE");
    ::unlink(path_.c_str());
  }
  std::vector<int16_t> written() const {
    std::ifstream in(path_, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    std::vector<int16_t> samples(bytes.size() / 2);
    std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    return samples;
  }
  std::string path_;
};

TEST_F(SdlDiskAudioTest, WritesTheFilledSamplesScaledByTheVolumeAndStopsWhenPausedOrStopped) {
  auto output = makeSdlAudioOutput();
  std::atomic<int> next{0};
  std::atomic<bool> stopped{false};
  std::atomic<bool> filledAfterStop{false};
  ASSERT_FALSE(output->start({44100, 2}, [&](int16_t* samples, size_t frames) {
    if (stopped) filledAfterStop = true;
    // A ramp that covers the whole range, so every sample's place and scaling shows.
    for (size_t i = 0; i < frames * 2; ++i) {
      samples[i] = static_cast<int16_t>((next++ * 97) % 65536 - 32768);
    }
  }));
  EXPECT_EQ(output->spec().sampleRate, 44100);
  EXPECT_EQ(output->spec().channels, 2);
  output->setVolume(0.5f);
  output->pause(false);
  ASSERT_TRUE(waitFor([&] { return next > 8192; }));
  EXPECT_GT(output->bufferedSeconds(), 0);
  EXPECT_LT(output->bufferedSeconds(), 0.2);

  output->pause(true);
  std::this_thread::sleep_for(100ms);  // a fill under way finishes
  const int atPause = next;
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(next, atPause);

  output->stop();
  stopped = true;
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(filledAfterStop);
  EXPECT_EQ(output->bufferedSeconds(), 0);

  // The device plays silence while paused, before the first fill too; the ramp sits between.
  const std::vector<int16_t> samples = written();
  size_t offset = 0;
  while (offset < samples.size() && samples[offset] == 0) ++offset;
  ASSERT_GE(samples.size(), offset + static_cast<size_t>(atPause));
  for (size_t i = 0; i < static_cast<size_t>(atPause); ++i) {
    const int original = static_cast<int>((i * 97) % 65536) - 32768;
    ASSERT_EQ(samples[offset + i], std::lround(original * 0.5)) << "sample " << i;
  }
  for (size_t i = offset + static_cast<size_t>(atPause); i < samples.size(); ++i) {
    ASSERT_EQ(samples[i], 0) << "sample " << i << " written while paused";
  }
}

TEST_F(SdlDiskAudioTest, WithoutADeviceStartFailsWithAMessage) {
  ::setenv("SDL_AUDIODRIVER", "no-such-driver", 1);
  auto output = makeSdlAudioOutput();
  auto error = output->start({48000, 2}, [](int16_t*, size_t) {});
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->message.rfind("no audio device: ", 0), 0u) << error->message;

  // The output a player uses then falls back to the real-time null output.
  auto fallback = makeAudioOutput();
  std::atomic<size_t> frames{0};
  ASSERT_FALSE(fallback->start({48000, 2}, [&](int16_t*, size_t n) { frames += n; }));
  fallback->pause(false);
  EXPECT_TRUE(waitFor([&] { return frames > 0; }));
  fallback->stop();
}

}  // namespace
}  // namespace nembra
