#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "nembra/main_queue.h"
#include "platform/ffmpeg/testing/realtime_audio_output.h"
#include "platform/ffmpeg/testing/recording_video_surface.h"
#include "platform/ffmpeg/testing/test_byte_source.h"
#include "platform/media/media_player_engine.h"
#include "platform/media/testing/media_test_files.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
using testing::MediaTestFiles;
using testing::RealtimeAudioOutput;
using testing::RecordingVideoSurface;
using testing::TestByteSource;
using Clock = std::chrono::steady_clock;

// Everything the engine reported, in order, as seen on the main queue.
class RecordingObserver final : public MediaPlayerObserver {
 public:
  void playerStatusChanged(MediaPlayerStatus status, const OptionalError& error) override {
    statuses.push_back(status);
    if (error) errors.push_back(*error);
  }
  void playerTimeControlStatusChanged(MediaPlayerTimeControlStatus status) override {
    timeControls.push_back(status);
  }
  void playerItemDidPlayToEnd(size_t index) override { ended.push_back(index); }
  void playerItemDidFail(size_t index, const Error& error) override {
    failed.push_back(index);
    errors.push_back(error);
  }

  std::vector<MediaPlayerStatus> statuses;
  std::vector<MediaPlayerTimeControlStatus> timeControls;
  std::vector<size_t> ended;
  std::vector<size_t> failed;
  std::vector<Error> errors;
};

// Pictures whose left half has luma 20 + 12 × (frame number mod 16) and whose right half
// 20 + 12 × (frame number / 16): the frame on screen can be read back from its pixels.
constexpr int kIndexedWidth = 160;
constexpr int kIndexedHeight = 120;

int frameNumberOf(const VideoFrame& frame) {
  auto level = [&](int x) {
    const int y = frame.height / 2;
    return frame.planes[0][static_cast<size_t>(y) * frame.strides[0] + x];
  };
  auto digit = [](int luma) { return static_cast<int>(std::lround((luma - 20) / 12.0)); };
  return digit(level(frame.width / 4)) + 16 * digit(level(frame.width * 3 / 4));
}

class PlayerEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  }
  void TearDown() override {
    if (engine_) engine_->close();
  }

  // 25 fps numbered pictures with a key frame every 2 s, and a tone unless |audio| is false;
  // the index comes first, so that a stalled byte source still opens.
  std::string indexedVideo(const std::string& name, double seconds, bool audio = true,
                           const std::string& pixelFormat = "yuv420p") {
    const std::string length = std::to_string(seconds);
    std::vector<std::string> args = {
        "-f", "lavfi", "-i",
        "color=c=black:s=" + std::to_string(kIndexedWidth) + "x" + std::to_string(kIndexedHeight) +
            ":r=25:d=" + length +
            ",format=yuv420p,geq=lum='if(lt(X,W/2),20+12*mod(N,16),20+12*floor(N/16))'"
            ":cb=128:cr=128"};
    if (audio)
      args.insert(args.end(), {"-f", "lavfi", "-i", "sine=frequency=440:duration=" + length});
    args.insert(args.end(), {"-c:v", "libx264", "-preset", "ultrafast", "-crf", "10", "-g", "50",
                             "-pix_fmt", pixelFormat, "-movflags", "+faststart"});
    if (audio) args.insert(args.end(), {"-c:a", "aac"});
    return files_.make(name, args);
  }

  void makeEngine(bool withAudio = true) {
    MediaPlayerEngineOptions options;
    options.surface = surface_;
    if (withAudio) {
      auto output = std::make_unique<RealtimeAudioOutput>();
      output_ = output.get();
      options.audioOutput = std::move(output);
    }
    options.postCallback = callbacksOn(main_);
    options.observer = observer_;
    engine_ = makeMediaPlayerEngine(std::move(options));
  }

  bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    return main_.runUntil(done, timeout);
  }
  void pumpFor(std::chrono::milliseconds time) {
    main_.runUntil([] { return false; }, time);
  }
  bool ready() {
    return !observer_->statuses.empty() &&
           observer_->statuses.back() == MediaPlayerStatus::ReadyToPlay;
  }

  MediaTestFiles files_;
  MainQueue main_;
  std::shared_ptr<RecordingObserver> observer_ = std::make_shared<RecordingObserver>();
  std::shared_ptr<RecordingVideoSurface> surface_ = std::make_shared<RecordingVideoSurface>();
  RealtimeAudioOutput* output_ = nullptr;  // owned by the engine
  std::unique_ptr<MediaPlayerEngine> engine_;
};

TEST_F(PlayerEngineTest, PlaysATenSecondFileToItsEndInRealTimeWithOneEndNotification) {
  const std::string path = indexedVideo("ten.mp4", 10);
  ASSERT_FALSE(path.empty());
  makeEngine();
  std::vector<double> offsets;  // picture time minus the sound's, as each picture is handed over
  std::vector<int> numbers;     // the frame number each picture carries in its pixels
  surface_->onPresent = [&](const SharedVideoFrame& frame) {
    offsets.push_back(frame->pts - engine_->currentTime());
    numbers.push_back(frameNumberOf(*frame));
  };
  engine_->setItems({MediaPlayerItem::file(path)});
  engine_->play();
  const auto started = Clock::now();
  ASSERT_TRUE(pumpUntil([&] { return !observer_->ended.empty(); }, 20s));
  const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
  pumpFor(500ms);  // a second notification would come by now

  EXPECT_EQ(observer_->ended, std::vector<size_t>{0});
  EXPECT_EQ(observer_->statuses, std::vector<MediaPlayerStatus>{MediaPlayerStatus::ReadyToPlay});
  EXPECT_EQ(observer_->timeControls,
            (std::vector<MediaPlayerTimeControlStatus>{MediaPlayerTimeControlStatus::WaitingToPlay,
                                                       MediaPlayerTimeControlStatus::Playing,
                                                       MediaPlayerTimeControlStatus::Paused}));
  EXPECT_GT(elapsed, 9.7);
  EXPECT_LT(elapsed, 11.0);
  EXPECT_NEAR(engine_->duration(), 10.0, 0.1);
  EXPECT_NEAR(engine_->currentTime(), 10.0, 0.1);
  EXPECT_EQ(engine_->rate(), 0.0);

  // Timed by the sound: the pictures come in order, each with its own time, the last one last;
  // every one of the 250 is either shown or, on a machine too slow for it, counted as dropped.
  const auto shown = surface_->shown();
  EXPECT_EQ(shown.size() + engine_->droppedPictureCount(), 250u);
  for (size_t i = 1; i < shown.size(); ++i) ASSERT_GT(shown[i].pts, shown[i - 1].pts) << i;
  EXPECT_NEAR(shown.back().pts, 9.96, 0.001);
  EXPECT_EQ(frameNumberOf(*surface_->last()), 249);
  EXPECT_GT(output_->peak(), 1000);
  engine_->close();  // no picture comes after this
  ASSERT_EQ(numbers.size(), shown.size());
  EXPECT_EQ(numbers.front(), 0);
  for (size_t i = 0; i < numbers.size(); ++i) {
    ASSERT_EQ(numbers[i], std::lround(shown[i].pts * 25)) << "picture " << i;
  }
  std::sort(offsets.begin(), offsets.end(),
            [](double a, double b) { return std::fabs(a) < std::fabs(b); });
  ASSERT_FALSE(offsets.empty());
  EXPECT_LT(std::fabs(offsets[offsets.size() * 99 / 100]), 0.04) << "pictures follow the sound";
}

TEST_F(PlayerEngineTest, WithoutSoundThePicturesKeepSystemTime) {
  const std::string path = indexedVideo("silent.mp4", 2, false);
  ASSERT_FALSE(path.empty());
  makeEngine(false);
  engine_->setItems({MediaPlayerItem::file(path)});
  engine_->play();
  const auto started = Clock::now();
  ASSERT_TRUE(pumpUntil([&] { return !observer_->ended.empty(); }, 10s));
  const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
  EXPECT_GT(elapsed, 1.8);
  EXPECT_LT(elapsed, 2.6);
  EXPECT_GE(surface_->count(), 49u);
  pumpFor(200ms);
  EXPECT_EQ(observer_->ended.size(), 1u);
}

TEST_F(PlayerEngineTest, SoundOnlyFilesEndByTheAudioClock) {
  const std::string path = files_.make(
      "tone.m4a", {"-f", "lavfi", "-i", "sine=frequency=440:duration=1.5", "-c:a", "aac"});
  ASSERT_FALSE(path.empty());
  makeEngine();
  engine_->setItems({MediaPlayerItem::file(path)});
  engine_->play();
  const auto started = Clock::now();
  ASSERT_TRUE(pumpUntil([&] { return !observer_->ended.empty(); }, 10s));
  const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
  EXPECT_GT(elapsed, 1.4);
  EXPECT_LT(elapsed, 2.2);
  pumpFor(100ms);  // the pause that follows the end
  EXPECT_NEAR(engine_->currentTime(), 1.5, 0.05);
  EXPECT_EQ(surface_->count(), 0u);
  EXPECT_GT(output_->peak(), 1000);
  EXPECT_EQ(observer_->timeControls,
            (std::vector<MediaPlayerTimeControlStatus>{MediaPlayerTimeControlStatus::WaitingToPlay,
                                                       MediaPlayerTimeControlStatus::Playing,
                                                       MediaPlayerTimeControlStatus::Paused}));
}

TEST_F(PlayerEngineTest, ASeekToTheEndEndsTheItem) {
  const std::string path = indexedVideo("to-end.mp4", 2);
  ASSERT_FALSE(path.empty());
  makeEngine();
  engine_->setItems({MediaPlayerItem::file(path)});
  engine_->play();
  ASSERT_TRUE(pumpUntil([&] { return surface_->count() > 2; }, 10s));
  engine_->seek(10.0);  // past the end: clamped to it
  ASSERT_TRUE(pumpUntil([&] { return !observer_->ended.empty(); }, 3s));
  pumpFor(100ms);
  EXPECT_EQ(observer_->timeControls.back(), MediaPlayerTimeControlStatus::Paused);

  // Play after the end starts over.
  const size_t shown = surface_->count();
  engine_->play();
  ASSERT_TRUE(pumpUntil([&] { return observer_->ended.size() == 2; }, 5s));
  EXPECT_GE(surface_->count(), shown + 48);
}

struct SeekCase {
  double target;
  int frame;  // the picture whose time span holds the target
};

class PlayerEngineSeekTest : public PlayerEngineTest,
                             public ::testing::WithParamInterface<SeekCase> {};

TEST_P(PlayerEngineSeekTest, ShowsThePictureAtTheTargetWhilePaused) {
  const std::string path = indexedVideo("seek.mp4", 10);
  ASSERT_FALSE(path.empty());
  makeEngine();
  engine_->setItems({MediaPlayerItem::file(path)});
  ASSERT_TRUE(pumpUntil([&] { return ready() && surface_->count() == 1; }, 10s));
  EXPECT_EQ(frameNumberOf(*surface_->last()), 0);  // paused, yet the first picture is shown

  engine_->seek(GetParam().target);
  ASSERT_TRUE(surface_->waitFor([](const auto& shown) { return shown.size() >= 2; }, 5s));
  pumpFor(200ms);
  const auto shown = surface_->shown();
  ASSERT_EQ(shown.size(), 2u) << "the pictures between the key frame and the target are dropped";
  EXPECT_NEAR(shown[1].pts, GetParam().frame * 0.04, 1e-6);
  EXPECT_EQ(frameNumberOf(*surface_->last()), GetParam().frame);
  EXPECT_NEAR(engine_->currentTime(), GetParam().target, 0.001);
}

INSTANTIATE_TEST_SUITE_P(Targets, PlayerEngineSeekTest,
                         ::testing::Values(SeekCase{5.0, 125}, SeekCase{5.03, 125},
                                           SeekCase{7.96, 199}, SeekCase{0.5, 12}));

TEST_F(PlayerEngineTest, SeekWhilePlayingGoesOnFromTheTarget) {
  const std::string path = indexedVideo("seek-play.mp4", 10);
  ASSERT_FALSE(path.empty());
  makeEngine();
  engine_->setItems({MediaPlayerItem::file(path)});
  engine_->play();
  ASSERT_TRUE(pumpUntil([&] { return engine_->currentTime() > 0.5; }, 10s));
  engine_->seek(6.0);
  const size_t before = surface_->count();
  pumpFor(1000ms);
  const auto shown = surface_->shown();
  ASSERT_GT(shown.size(), before + 10);
  EXPECT_NEAR(shown[before].pts, 6.0, 1e-6);
  EXPECT_NEAR(engine_->currentTime(), 7.0, 0.15);
  EXPECT_EQ(observer_->timeControls.back(), MediaPlayerTimeControlStatus::Playing);
}

TEST_F(PlayerEngineTest, PauseStopsTheClockAndThePictures) {
  const std::string path = indexedVideo("pause.mp4", 5);
  ASSERT_FALSE(path.empty());
  makeEngine();
  engine_->setItems({MediaPlayerItem::file(path)});
  engine_->play();
  ASSERT_TRUE(pumpUntil([&] { return engine_->currentTime() > 1.0; }, 10s));
  engine_->pause();
  pumpFor(50ms);
  const double pausedAt = engine_->currentTime();
  const size_t frames = surface_->count();
  const int64_t pulls = output_->pulls();
  pumpFor(600ms);
  EXPECT_DOUBLE_EQ(engine_->currentTime(), pausedAt);
  EXPECT_EQ(surface_->count(), frames);
  EXPECT_EQ(output_->pulls(), pulls);
  EXPECT_EQ(observer_->timeControls.back(), MediaPlayerTimeControlStatus::Paused);
  EXPECT_EQ(engine_->rate(), 0.0);

  engine_->play();
  pumpFor(500ms);
  EXPECT_NEAR(engine_->currentTime(), pausedAt + 0.5, 0.1);
  EXPECT_GT(surface_->count(), frames + 8);
  EXPECT_EQ(observer_->timeControls.back(), MediaPlayerTimeControlStatus::Playing);
}

TEST_F(PlayerEngineTest, MutingSilencesTheSoundButNotTheClock) {
  const std::string path = indexedVideo("mute.mp4", 3);
  ASSERT_FALSE(path.empty());
  makeEngine();
  engine_->setItems({MediaPlayerItem::file(path)});
  engine_->play();
  pumpFor(500ms);
  EXPECT_GT(output_->peak(), 1000);
  engine_->setMuted(true);
  pumpFor(50ms);
  output_->resetPeak();
  const double before = engine_->currentTime();
  pumpFor(400ms);
  EXPECT_EQ(output_->peak(), 0);
  EXPECT_TRUE(engine_->muted());
  EXPECT_GT(engine_->currentTime(), before + 0.3);
}

TEST_F(PlayerEngineTest, PlaysAQueueOfItemsInOrder) {
  const std::string first = files_.video("first.mp4", "160x120", 1.0);
  const std::string second = files_.video("second.mp4", "96x64", 1.0);
  ASSERT_FALSE(first.empty());
  ASSERT_FALSE(second.empty());
  makeEngine();
  engine_->setItems({MediaPlayerItem::file(first), MediaPlayerItem::file(second)});
  engine_->play();
  ASSERT_TRUE(pumpUntil([&] { return observer_->ended.size() == 2; }, 10s));
  pumpFor(300ms);
  EXPECT_EQ(observer_->ended, (std::vector<size_t>{0, 1}));
  EXPECT_EQ(engine_->currentItemIndex(), 1u);
  EXPECT_EQ(observer_->timeControls.back(), MediaPlayerTimeControlStatus::Paused);

  // 25 pictures each: every one shown, or counted as dropped by a machine too slow for it.
  const auto shown = surface_->shown();
  EXPECT_EQ(shown.size() + engine_->droppedPictureCount(), 50u);
  size_t firstCount = 0;
  while (firstCount < shown.size() && shown[firstCount].width == 160) ++firstCount;
  EXPECT_GE(firstCount, 1u);
  EXPECT_LE(firstCount, 25u);
  ASSERT_GT(shown.size(), firstCount);
  EXPECT_LE(shown.size() - firstCount, 25u);
  for (size_t i = firstCount; i < shown.size(); ++i) {
    EXPECT_EQ(shown[i].width, 96) << "a picture of the first item after the second began";
    EXPECT_GT(shown[i].clearsBefore, shown[0].clearsBefore) << "the surface is blanked between";
  }
  EXPECT_NEAR(shown[firstCount].pts, 0.0, 0.001);
}

TEST_F(PlayerEngineTest, PicturesNotIn420AreConvertedToI420) {
  const std::string path = indexedVideo("444.mp4", 1, false, "yuv444p");
  ASSERT_FALSE(path.empty());
  makeEngine(false);
  engine_->setItems({MediaPlayerItem::file(path)});
  engine_->seek(0.4);
  ASSERT_TRUE(surface_->waitFor(
      [](const auto& shown) { return !shown.empty() && shown.back().pts > 0.3; }, 5s));
  const SharedVideoFrame frame = surface_->last();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->strides[0], kIndexedWidth);
  EXPECT_EQ(frame->planes[0].size(), size_t{kIndexedWidth} * kIndexedHeight);
  EXPECT_EQ(frame->planes[1].size(), size_t{kIndexedWidth / 2} * (kIndexedHeight / 2));
  EXPECT_EQ(frameNumberOf(*frame), 10);
  EXPECT_NEAR(frame->planes[1][100], 128, 2);  // neutral chroma survives the conversion
}

struct BrokenCase {
  const char* name;
  ErrorKind kind;
  std::function<void(const std::string& path, MediaTestFiles& files)> make;
};

class PlayerEngineBrokenTest : public PlayerEngineTest,
                               public ::testing::WithParamInterface<BrokenCase> {};

TEST_P(PlayerEngineBrokenTest, FailsWithAnErrorThatNamesTheFile) {
  const std::string path = files_.path(GetParam().name);
  GetParam().make(path, files_);
  makeEngine();
  engine_->setItems({MediaPlayerItem::file(path)});
  engine_->play();
  ASSERT_TRUE(pumpUntil([&] { return !observer_->failed.empty(); }, 10s));
  pumpFor(100ms);
  EXPECT_EQ(observer_->failed, std::vector<size_t>{0});
  EXPECT_EQ(observer_->statuses, std::vector<MediaPlayerStatus>{MediaPlayerStatus::Failed});
  EXPECT_EQ(engine_->status(), MediaPlayerStatus::Failed);
  ASSERT_FALSE(observer_->errors.empty());
  EXPECT_EQ(observer_->errors.front().kind, GetParam().kind);
  EXPECT_NE(observer_->errors.front().message.find(path), std::string::npos)
      << observer_->errors.front().message;
  EXPECT_EQ(observer_->timeControls.back(), MediaPlayerTimeControlStatus::Paused);
  EXPECT_EQ(surface_->count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Inputs, PlayerEngineBrokenTest,
                         ::testing::Values(BrokenCase{"noise.mp4", ErrorKind::Media,
                                                      [](const std::string& path, MediaTestFiles&) {
                                                        std::mt19937 random(7);
                                                        std::ofstream out(path, std::ios::binary);
                                                        for (int i = 0; i < 64 * 1024; ++i)
                                                          out.put(static_cast<char>(random()));
                                                      }},
                                           BrokenCase{
                                               "truncated.mp4", ErrorKind::Media,
                                               [](const std::string& path, MediaTestFiles& files) {
                                                 // The index is at the end: a file cut in half has
                                                 // none.
                                                 const std::string whole =
                                                     files.video("whole.mp4", "160x120", 2.0);
                                                 std::ifstream in(whole, std::ios::binary);
                                                 std::string bytes(
                                                     (std::istreambuf_iterator<char>(in)), {});
                                                 std::ofstream(path, std::ios::binary)
                                                     << bytes.substr(0, bytes.size() / 2);
                                               }},
                                           BrokenCase{"missing.mp4", ErrorKind::File,
                                                      [](const std::string&, MediaTestFiles&) {}}),
                         [](const auto& info) {
                           std::string name = info.param.name;
                           return name.substr(0, name.find('.'));
                         });

class PlayerEngineByteSourceTest : public PlayerEngineTest,
                                   public ::testing::WithParamInterface<bool> {};

// true: the source stalls in the middle of playback; false: at its very first read.
TEST_P(PlayerEngineByteSourceTest, CloseReturnsPromptlyWhileAReadIsBlocked) {
  const std::string path = indexedVideo("source.mp4", 10);
  ASSERT_FALSE(path.empty());
  const bool midway = GetParam();
  const auto size = static_cast<int64_t>(std::filesystem::file_size(path));
  auto source = std::make_shared<TestByteSource>(path, midway ? size / 3 : 0);
  makeEngine();
  MediaPlayerItem item;
  item.source = source;
  item.name = "source.mp4";
  engine_->setItems({item});
  engine_->play();
  if (midway) {
    // The bytes before the stall play: the source is demuxed like a file.
    ASSERT_TRUE(pumpUntil([&] { return surface_->count() > 5; }, 10s));
    EXPECT_TRUE(ready());
  }
  ASSERT_TRUE(pumpUntil([&] { return source->stalled(); }, 10s));
  if (midway) {
    // Once what was read has played, the player waits, its clock held.
    ASSERT_TRUE(pumpUntil(
        [&] {
          return observer_->timeControls.back() == MediaPlayerTimeControlStatus::WaitingToPlay;
        },
        10s));
    // The sound the output already had plays out first.
    pumpFor(100ms);
    const double held = engine_->currentTime();
    pumpFor(300ms);
    EXPECT_NEAR(engine_->currentTime(), held, 0.02);
  }
  std::this_thread::sleep_for(100ms);

  const auto started = Clock::now();
  engine_->close();
  const auto took = Clock::now() - started;
  EXPECT_LT(took, 100ms) << std::chrono::duration<double, std::milli>(took).count() << " ms";

  const size_t reports = observer_->statuses.size() + observer_->failed.size();
  pumpFor(100ms);
  EXPECT_EQ(observer_->statuses.size() + observer_->failed.size(), reports)
      << "nothing is reported after close";
}

INSTANTIATE_TEST_SUITE_P(Stalls, PlayerEngineByteSourceTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Midway" : "AtOpen"; });

}  // namespace
}  // namespace nembra
