#include "playback/video_editor_screen.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>

#include "api/picker_screens.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/nembra_delegates.h"
#include "platform/files/file_system.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"
#include "playback/picker_module.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;

// A 5 s video at 30 pictures a second; the cuts asked for are recorded.
class FakeTrimmer final : public MediaTrimmer {
 public:
  OptionalError describe(const std::string& path, TrimSource& source) override {
    std::ifstream in(path);
    std::string content;
    if (!std::getline(in, content)) return Error::file("cannot read " + path);
    if (content != "movie") return Error::media("no picture track");
    source.duration = 5.0;
    source.frameRate = 30;
    return std::nullopt;
  }
  OptionalError trim(const std::string&, const std::string& output, double start,
                     double end) override {
    std::lock_guard lock(mutex);
    cuts.emplace_back(start, end);
    if (failure) return failure;
    std::ofstream(output) << "cut";
    return std::nullopt;
  }
  std::mutex mutex;
  std::vector<std::pair<double, double>> cuts;
  OptionalError failure;
};

// Records what the editor asks of the player; the test moves its clock.
class FakeEngine final : public MediaPlayerEngine {
 public:
  explicit FakeEngine(std::vector<std::string>* calls) : calls_(calls) {}
  void setItems(std::vector<MediaPlayerItem> items) override {
    calls_->push_back("open " + items.at(0).path);
  }
  void append(MediaPlayerItem) override {}
  void play() override {
    calls_->push_back("play");
    status_ = MediaPlayerTimeControlStatus::Playing;
  }
  void pause() override {
    calls_->push_back("pause");
    status_ = MediaPlayerTimeControlStatus::Paused;
  }
  void seek(double seconds) override {
    calls_->push_back("seek " + VideoEditorScreen::chronometerText(seconds));
    time = seconds;
  }
  void setMuted(bool) override {}
  bool muted() const override { return false; }
  double rate() const override { return status_ == MediaPlayerTimeControlStatus::Paused ? 0 : 1; }
  double currentTime() const override { return time; }
  double duration() const override { return 5; }
  MediaPlayerStatus status() const override { return MediaPlayerStatus::ReadyToPlay; }
  MediaPlayerTimeControlStatus timeControlStatus() const override { return status_; }
  size_t currentItemIndex() const override { return 0; }
  uint64_t droppedPictureCount() const override { return 0; }
  void close() override { calls_->push_back("close"); }

  double time = 0;

 private:
  std::vector<std::string>* calls_;
  MediaPlayerTimeControlStatus status_ = MediaPlayerTimeControlStatus::Paused;
};

class VideoEditorScreenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousRoot_ = FileSystem::shared().root();
    FileSystem::shared().setRoot(scratch_.path());
    nembra_.config().useSingleServer("http://127.0.0.1:9");  // every upload fails fast
    nembra_.setScreenPresenter(presenter_);
    video_ = scratch_.path() + "/clip.mp4";
    std::ofstream(video_) << "movie";
    PickerModuleOptions options;
    options.trimmer = trimmer_;
    options.withSound = false;
    options.engineFactory = [this](MediaPlayerEngineOptions) {
      auto engine = std::make_unique<FakeEngine>(&calls_);
      engine_ = engine.get();
      return engine;
    };
    options.onTrimmed = [this](const std::optional<Json>&, const OptionalError& error) {
      finished_ = true;
      error_ = error;
    };
    installPickerScreens(std::move(options));
  }
  void TearDown() override {
    PickerScreens::install(nullptr);
    FileSystem::shared().setRoot(previousRoot_);
  }

  void open(const std::string& path) {
    nembra_.trimVideo(path);
    ASSERT_NE(ui_.topView(), nullptr);
    ASSERT_EQ(view().screenName(), "video-editor");
  }
  HeadlessScreenView& view() { return *ui_.topView(); }
  double start() { return view().slider("start")->value; }
  double end() { return view().slider("end")->value; }

  testing::ScratchDirectory scratch_;
  std::string previousRoot_;
  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  std::shared_ptr<FakeTrimmer> trimmer_ = std::make_shared<FakeTrimmer>();
  std::vector<std::string> calls_;
  FakeEngine* engine_ = nullptr;
  HeadlessUi ui_;
  std::shared_ptr<ScreenPresenter> presenter_ = std::make_shared<ScreenPresenter>(ui_, queue_);
  std::string video_;
  bool finished_ = false;
  OptionalError error_;
};

TEST_F(VideoEditorScreenTest, ChronometerText) {
  struct Case {
    double seconds;
    const char* text;
  } cases[] = {{0, "00:00.000"},    {2, "00:02.000"},    {1.0 / 30, "00:00.033"},
               {61.5, "01:01.500"}, {3725, "62:05.000"}, {-1, "00:00.000"}};
  for (const Case& c : cases) EXPECT_EQ(VideoEditorScreen::chronometerText(c.seconds), c.text);
}

TEST_F(VideoEditorScreenTest, OpensOnACopyWithTheWholeVideoSelected) {
  open(video_);
  const std::string copy = FileSystem::shared().documentsDirectory() + "/video.mp4";
  EXPECT_TRUE(std::filesystem::exists(copy));
  EXPECT_EQ(calls_.at(0), "open " + copy);
  EXPECT_EQ(start(), 0);
  EXPECT_EQ(end(), 5);
  EXPECT_EQ(view().label("chronometer"), "00:05.000");
  EXPECT_EQ(view().label("selection"), "00:00.000 - 00:05.000");
  EXPECT_EQ(view().slider("end")->maximum, 5);
}

// Handles snap to pictures, stay inside the video and keep one picture between them.
TEST_F(VideoEditorScreenTest, HandlesClampAndKeepTheEndAfterTheStart) {
  open(video_);
  ASSERT_TRUE(view().moveSlider("start", 1.01));
  EXPECT_DOUBLE_EQ(start(), 1.0);
  ASSERT_TRUE(view().moveSlider("end", 3.0));
  EXPECT_EQ(view().label("chronometer"), "00:02.000");

  view().moveSlider("start", 4.0);  // past the end handle
  EXPECT_NEAR(start(), 3.0 - 1.0 / 30, 1e-9);
  view().moveSlider("end", 0.5);  // before the start handle
  EXPECT_NEAR(end(), 3.0, 1e-9);
  EXPECT_EQ(view().label("chronometer"), "00:00.033");

  view().moveSlider("end", 99);
  EXPECT_EQ(end(), 5);
  view().moveSlider("start", -3);
  EXPECT_EQ(start(), 0);
}

TEST_F(VideoEditorScreenTest, KeysMoveTheActiveHandleByAPictureOrASecond) {
  open(video_);
  view().pressKey("up");
  view().pressKey("right");
  EXPECT_NEAR(start(), 1.0 + 1.0 / 30, 1e-9);
  view().pressKey("tab");
  EXPECT_EQ(view().label("handle"), "arrows move the end (tab: the other handle)");
  view().pressKey("down");
  view().pressKey("left");
  EXPECT_NEAR(end(), 4.0 - 1.0 / 30, 1e-9);
  view().pressKey("s");
  view().pressKey("left");
  EXPECT_NEAR(start(), 1.0, 1e-9);
  EXPECT_EQ(view().label("selection"), "00:01.000 - 00:03.967");
}

TEST_F(VideoEditorScreenTest, PlaysTheSelectionOnlyAndStopsAtItsEnd) {
  open(video_);
  view().moveSlider("start", 1);
  view().moveSlider("end", 2);
  calls_.clear();
  ASSERT_TRUE(view().press("play"));
  EXPECT_EQ(calls_, (std::vector<std::string>{"seek 00:01.000", "play"}));
  EXPECT_EQ(view().button("play")->image, "pause-white");
  engine_->time = 1.5;
  queue_.runUntil([] { return false; }, 60ms);
  EXPECT_EQ(calls_.size(), 2u);
  engine_->time = 2.0;
  ASSERT_TRUE(queue_.runUntil([&] { return calls_.size() > 2; }, 2s));
  EXPECT_EQ(calls_,
            (std::vector<std::string>{"seek 00:01.000", "play", "pause", "seek 00:01.000"}));
  EXPECT_EQ(view().button("play")->image, "play-white");
}

TEST_F(VideoEditorScreenTest, TrimsTheSnappedSelectionThenUploadsIt) {
  auto delegate = std::make_shared<NembraUploadingDelegate>();
  std::vector<std::string> told;
  delegate->preparingToUploadWithPath = [&](const std::string& path) { told.push_back(path); };
  nembra_.setUploadingDelegate(delegate);
  open(video_);
  view().moveSlider("start", 1.004);
  view().moveSlider("end", 2.996);
  view().pressKey("enter");
  EXPECT_FALSE(view().button("trim")->enabled);
  EXPECT_FALSE(view().slider("start")->enabled);
  ASSERT_TRUE(queue_.runUntil([&] { return finished_; }, 20s));
  ASSERT_EQ(trimmer_->cuts.size(), 1u);
  EXPECT_DOUBLE_EQ(trimmer_->cuts[0].first, 1.0);
  EXPECT_DOUBLE_EQ(trimmer_->cuts[0].second, 3.0);
  // The cut went to the upload handler, which could reach no service.
  ASSERT_EQ(told.size(), 1u);
  EXPECT_NE(told[0].find("trim-"), std::string::npos);
  ASSERT_TRUE(error_);
  EXPECT_NE(error_->kind, ErrorKind::Cancelled);
  EXPECT_EQ(presenter_->depth(), 0u);
}

TEST_F(VideoEditorScreenTest, AFailedCutIsShownAndTheEditorStaysOpen) {
  trimmer_->failure = Error::media("the encoder broke");
  open(video_);
  view().press("trim");
  ASSERT_TRUE(queue_.runUntil([&] { return view().alert().has_value(); }, 5s));
  EXPECT_EQ(view().alert()->title, "Cannot trim the video");
  EXPECT_EQ(view().alert()->message, "the encoder broke");
  ASSERT_TRUE(view().answerAlert("OK"));
  EXPECT_TRUE(view().button("trim")->enabled);
  EXPECT_FALSE(finished_);
  view().pressKey("q");
  queue_.runUntilIdle();
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->kind, ErrorKind::Cancelled);
}

TEST_F(VideoEditorScreenTest, RefusesWhatItCannotTrim) {
  // A remote path: the alert only, nothing copied.
  for (const char* remote : {"https://cdn.example/v.mp4", "see http://x/v.mp4"}) {
    nembra_.trimVideo(remote);
    ASSERT_NE(ui_.topView(), nullptr);
    ASSERT_TRUE(view().alert());
    EXPECT_EQ(view().alert()->title, "Nembra can trim only local video.");
    EXPECT_EQ(view().alert()->buttons, std::vector<std::string>{"OK"});
    view().answerAlert("OK");
    queue_.runUntilIdle();
    EXPECT_EQ(presenter_->depth(), 0u);
  }
  EXPECT_FALSE(std::filesystem::exists(FileSystem::shared().documentsDirectory() + "/video.mp4"));

  // A local file that is not a video, or none at all: told, then the editor goes with the
  // error.
  std::ofstream(scratch_.path() + "/text.mp4") << "text";
  for (const std::string& local : {scratch_.path() + "/text.mp4", scratch_.path() + "/none.mp4"}) {
    finished_ = false;
    open(local);
    ASSERT_TRUE(view().alert());
    EXPECT_EQ(view().alert()->title, "Cannot open the video");
    EXPECT_FALSE(view().button("trim")->enabled);
    view().answerAlert("OK");
    queue_.runUntilIdle();
    EXPECT_TRUE(finished_);
    EXPECT_TRUE(error_);
    EXPECT_EQ(presenter_->depth(), 0u);
  }
}

}  // namespace
}  // namespace nembra
