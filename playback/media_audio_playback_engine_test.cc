#include "playback/media_audio_playback_engine.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "nembra/main_queue.h"
#include "platform/system/child_process.h"
#include "platform/system/testing/private_session_bus.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char* kPlayer = "/org/mpris/MediaPlayer2";

class DesktopChanges final : public AudioPlaybackListener {
 public:
  void episodeLoadedNotification(int) override {}
  void playerDidReachEndNotification() override {}
  void playbackChangedByDesktop() override { ++count; }
  int count = 0;
};

// The shared engine as the desktop sees it, on a private session bus, playing a tone made by
// ffmpeg.
class SharedAudioEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::PrivateSessionBus::available()) GTEST_SKIP() << "needs dbus-daemon and dbus-send";
    if (std::system("ffmpeg -version > /dev/null 2>&1") != 0) GTEST_SKIP() << "needs ffmpeg";
    dir_ = fs::temp_directory_path() /
           ("nembra-audio-engine-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    ASSERT_TRUE(bus_.start(dir_ / "bus"));
    if (const char* old = std::getenv("DBUS_SESSION_BUS_ADDRESS")) savedAddress_ = old;
    setenv("DBUS_SESSION_BUS_ADDRESS", bus_.address().c_str(), 1);
    tone_ = (dir_ / "tone.m4a").string();
    ChildProcessOptions options;
    options.argv = {"ffmpeg", "-loglevel",        "error", "-y",  "-f", "lavfi",
                    "-i",     "sine=duration=30", "-c:a",  "aac", tone_};
    std::unique_ptr<ChildProcess> ffmpeg;
    ASSERT_FALSE(ChildProcess::start(options, ffmpeg));
    ASSERT_EQ(ffmpeg->wait(30s), 0);
  }

  void TearDown() override {
    if (savedAddress_.empty()) {
      unsetenv("DBUS_SESSION_BUS_ADDRESS");
    } else {
      setenv("DBUS_SESSION_BUS_ADDRESS", savedAddress_.c_str(), 1);
    }
    std::error_code ignored;
    fs::remove(tone_, ignored);
  }

  // Starts the tone on |engine| and waits until it plays.
  void playTone(AudioPlaybackEngine& engine, MainQueue& queue) {
    bool ready = false;
    engine.playPauseMediaFileWithAudioUrl(
        tone_,
        AudioPlaybackEngine::springboardDictionaryWithTitle("Nembra", "", 0, "Nembra Title",
                                                            "/usr/share/nembra/icon.png"),
        0, [&] { ready = true; });
    ASSERT_TRUE(queue.runUntil([&] { return ready; }, 10s));
    ASSERT_TRUE(engine.isPlaying());
  }

  std::string property(const std::string& name) {
    return bus_.call(busName(), kPlayer,
                     {"org.freedesktop.DBus.Properties.Get", "string:org.mpris.MediaPlayer2.Player",
                      "string:" + name});
  }

  // Waits, running |queue|, until the desktop reads |status|.
  bool statusBecomes(MainQueue& queue, const std::string& status) {
    for (int i = 0; i < 50; ++i) {
      queue.runUntilIdle();
      if (property("PlaybackStatus").find('"' + status + '"') != std::string::npos) return true;
      std::this_thread::sleep_for(50ms);
    }
    return false;
  }

  static std::string busName() {
    return "org.mpris.MediaPlayer2.nembra.instance" + std::to_string(::getpid());
  }

  bool onTheBus() { return bus_.names().find(busName()) != std::string::npos; }

  fs::path dir_;
  testing::PrivateSessionBus bus_;
  std::string savedAddress_;
  std::string tone_;
};

TEST_F(SharedAudioEngineTest, TheDesktopSeesWhatPlaysAndItsPlayPauseReachesThePlayer) {
  MainQueue queue;
  AudioPlaybackEngine& engine = AudioPlaybackEngine::sharedInstance(queue);
  auto changes = std::make_shared<DesktopChanges>();
  engine.addListener(changes);
  playTone(engine, queue);

  const std::string metadata = property("Metadata");
  EXPECT_NE(metadata.find("\"xesam:title\" variant string \"Nembra\""), std::string::npos)
      << metadata;
  EXPECT_NE(metadata.find("\"xesam:album\" variant string \"Nembra Title\""), std::string::npos);
  EXPECT_NE(metadata.find("file:///usr/share/nembra/icon.png"), std::string::npos);
  EXPECT_NE(metadata.find(tone_), std::string::npos);
  // The length, learnt once the item was open: 30 s in microseconds, give or take a frame.
  const size_t length = metadata.find("\"mpris:length\" variant int64 ");
  ASSERT_NE(length, std::string::npos) << metadata;
  EXPECT_NEAR(std::atoll(metadata.c_str() + length + 29), 30'000'000, 100'000);
  EXPECT_TRUE(statusBecomes(queue, "Playing"));

  bus_.call(busName(), kPlayer, {"org.mpris.MediaPlayer2.Player.PlayPause"});
  EXPECT_TRUE(queue.runUntil([&] { return !engine.isPlaying(); }, 5s));
  EXPECT_EQ(changes->count, 1);  // the screen hears of it
  EXPECT_TRUE(statusBecomes(queue, "Paused"));
  const double pausedAt = engine.currentTimeInSeconds();
  std::this_thread::sleep_for(300ms);
  queue.runUntilIdle();
  EXPECT_NEAR(engine.currentTimeInSeconds(), pausedAt, 0.05);

  bus_.call(busName(), kPlayer, {"org.mpris.MediaPlayer2.Player.PlayPause"});
  EXPECT_TRUE(queue.runUntil([&] { return engine.isPlaying(); }, 5s));
  EXPECT_TRUE(statusBecomes(queue, "Playing"));
  engine.removeListener(changes.get());
}

TEST_F(SharedAudioEngineTest, EndsWithItsQueueAndTheNextQueueGetsAFreshOne) {
  auto first = std::make_unique<MainQueue>();
  AudioPlaybackEngine& old = AudioPlaybackEngine::sharedInstance(*first);
  playTone(old, *first);
  ASSERT_TRUE(onTheBus());

  // The host's queue ends while the tone plays: the engine stops and leaves the bus.
  first.reset();
  EXPECT_FALSE(old.isPlaying());
  bool gone = false;
  for (int i = 0; i < 50 && !gone; ++i) {
    gone = !onTheBus();
    if (!gone) std::this_thread::sleep_for(20ms);
  }
  EXPECT_TRUE(gone);
  // A screen still holding the old engine may call it: nothing happens, nothing is posted.
  bool called = false;
  old.playPauseMediaFileWithAudioUrl(tone_, {}, 0, [&] { called = true; });
  old.seekPlayerToTimeWithValue(3, [&] { called = true; });
  EXPECT_FALSE(called);

  MainQueue second;
  AudioPlaybackEngine& fresh = AudioPlaybackEngine::sharedInstance(second);
  EXPECT_NE(&fresh, &old);
  EXPECT_EQ(&AudioPlaybackEngine::sharedInstance(second), &fresh);
  playTone(fresh, second);
  EXPECT_TRUE(statusBecomes(second, "Playing"));
  bus_.call(busName(), kPlayer, {"org.mpris.MediaPlayer2.Player.Pause"});
  EXPECT_TRUE(second.runUntil([&] { return !fresh.isPlaying(); }, 5s));
}

}  // namespace
}  // namespace nembra
