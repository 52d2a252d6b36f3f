// The audio recorder screen through the headless adapter, recording from the virtual
// microphone.
#include "capture/nembra_audio_recorder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "capture/capture_screens_module.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"

namespace nembra {
namespace {

bool isFinishedM4a(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  const std::string data = bytes.str();
  // The index is written when the take is finished.
  return data.find("moov") != std::string::npos && data.find("alac") != std::string::npos;
}

class AudioRecorderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    nembra_.config().useSingleServer("http://127.0.0.1:9");
    nembra_.setLogSink([](const std::string&) {});
    presenter_ = std::make_shared<ScreenPresenter>(ui_, queue_);
    nembra_.setScreenPresenter(presenter_);
    module_ = installCaptureScreens();
    module_->configureAudioRecorder = [this](NembraAudioRecorder& recorder) {
      recorder.setMicrophone("lavfi");
      recorder.setRecordingDirectory(directory_);
      recorder_ = &recorder;
    };
    directory_ = scratch_.path();
    delegate_ = std::make_shared<NembraRecorderDelegate>();
    auto note = [this](std::string event) { return [this, event] { events_.push_back(event); }; };
    delegate_->recorderReady = note("ready");
    delegate_->recorderStarted = note("started");
    delegate_->recorderPaused = note("paused");
    delegate_->recorderPlaying = note("playing");
    delegate_->recorderRerecord = note("rerecord");
    delegate_->recorderCancelledByUser = note("cancelled");
    delegate_->recorderManuallySubmitted = note("submitted");
    delegate_->recorderStopped = [this](const std::string& path) {
      events_.push_back("stopped");
      stoppedPath_ = path;
    };
    nembra_.setRecorderDelegate(delegate_);
    uploads_ = std::make_shared<NembraUploadingDelegate>();
    uploads_->preparingToUploadWithPath = [this](const std::string& path) {
      uploaded_.push_back(path);
    };
    nembra_.setUploadingDelegate(uploads_);
  }
  void TearDown() override { CaptureScreens::install(nullptr); }

  HeadlessScreenView& view() { return *ui_.topView(); }
  void open() {
    nembra_.startAudioRecorder();
    queue_.runUntilIdle();
    ASSERT_NE(ui_.topView(), nullptr);
    ASSERT_EQ(view().screenName(), "audio-recorder");
  }
  // Records until the waveform has drawn |levels| levels.
  void recordLevels(size_t levels) {
    ASSERT_TRUE(view().press("record"));
    ASSERT_TRUE(queue_.runUntil([&] { return view().label("waveform").size() >= levels; }));
  }

  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  HeadlessUi ui_;
  std::shared_ptr<ScreenPresenter> presenter_;
  std::shared_ptr<CaptureScreensModule> module_;
  testing::ScratchDirectory scratch_;
  std::string directory_;
  NembraAudioRecorder* recorder_ = nullptr;
  std::shared_ptr<NembraRecorderDelegate> delegate_;
  std::shared_ptr<NembraUploadingDelegate> uploads_;
  std::vector<std::string> events_;
  std::vector<std::string> uploaded_;
  std::string stoppedPath_;
};

TEST_F(AudioRecorderTest, CloseWhileRecordingFinishesTheTakeBeforeDismissalAndUploadsNothing) {
  open();
  recordLevels(3);
  EXPECT_EQ(view().label("status"), "Recording");
  EXPECT_EQ(view().button("record")->image, "audio-record-stop-black");
  EXPECT_FALSE(view().label("level").empty());
  ASSERT_TRUE(view().press("close"));
  ASSERT_TRUE(queue_.runUntil([&] { return presenter_->depth() == 0; }));
  queue_.runUntilIdle();
  EXPECT_EQ(events_, (std::vector<std::string>{"ready", "started", "stopped", "cancelled"}));
  EXPECT_TRUE(isFinishedM4a(stoppedPath_));
  EXPECT_TRUE(uploaded_.empty());
}

TEST_F(AudioRecorderTest, PauseIsOfferedOnlyInPausedMode) {
  for (bool pausedMode : {false, true}) {
    SCOPED_TRACE(pausedMode);
    nembra_.recorderConfig().setIsPausedMode(pausedMode);
    events_.clear();
    open();
    ASSERT_TRUE(view().press("record"));
    ASSERT_EQ(recorder_->currentState(), NembraAudioRecorder::kRecording);
    EXPECT_EQ(view().button("pause")->hidden, !pausedMode);
    EXPECT_EQ(view().press("pause"), pausedMode);
    if (pausedMode) {
      EXPECT_EQ(recorder_->currentState(), NembraAudioRecorder::kRecordingPaused);
      EXPECT_EQ(view().label("status"), "Recording Paused");
      EXPECT_EQ(view().button("record")->image, "audio-record-stop-black");
      EXPECT_EQ(view().button("pause")->image, "audio-record-resume-black");
      ASSERT_TRUE(view().press("pause"));
      EXPECT_EQ(view().button("pause")->image, "audio-record-pause-black");
      EXPECT_EQ(events_, (std::vector<std::string>{"ready", "started", "paused", "started"}));
    } else {
      EXPECT_EQ(recorder_->currentState(), NembraAudioRecorder::kRecording);
    }
    ASSERT_TRUE(view().press("close"));
    ASSERT_TRUE(queue_.runUntil([&] { return presenter_->depth() == 0; }));
  }
}

TEST_F(AudioRecorderTest, TakeOfZeroSecondsShowsZeroTimeAndTheSliderAtZero) {
  open();
  ASSERT_TRUE(view().press("record"));
  ASSERT_TRUE(view().press("record"));
  EXPECT_EQ(recorder_->currentState(), NembraAudioRecorder::kRecorded);
  EXPECT_EQ(view().label("status"), "");
  EXPECT_EQ(view().button("record")->image, "play-black");
  EXPECT_EQ(view().label("duration"), "00:00:00");
  EXPECT_EQ(view().label("time"), "00:00:00");
  ASSERT_TRUE(view().slider("time"));
  EXPECT_FALSE(view().slider("time")->hidden);
  EXPECT_EQ(view().slider("time")->value, 0.0);
  EXPECT_FALSE(view().button("upload")->hidden);
  EXPECT_FALSE(view().button("rerecord")->hidden);
}

TEST_F(AudioRecorderTest, RecordAgainDeletesTheTakeAndEmptiesTheWaveform) {
  open();
  EXPECT_TRUE(view().button("rerecord")->hidden);
  recordLevels(4);
  ASSERT_TRUE(view().press("record"));
  const std::string take = stoppedPath_;
  ASSERT_TRUE(isFinishedM4a(take));
  EXPECT_FALSE(view().label("waveform").empty());

  ASSERT_TRUE(view().press("rerecord"));
  EXPECT_FALSE(std::filesystem::exists(take));
  EXPECT_EQ(recorder_->currentState(), NembraAudioRecorder::kReady);
  EXPECT_EQ(view().button("record")->image, "audio-record-start-black");
  EXPECT_EQ(view().label("waveform"), "");
  EXPECT_TRUE(view().button("upload")->hidden);
  EXPECT_TRUE(view().slider("time")->hidden);
  EXPECT_FALSE(recorder_->viewModel().audioFilePathLocal);
  EXPECT_EQ(events_.back(), "rerecord");
}

TEST_F(AudioRecorderTest, UploadHandsTheTakeToTheUploadHandlerAndDismisses) {
  open();
  ASSERT_TRUE(view().press("record"));
  ASSERT_TRUE(view().press("record"));
  ASSERT_TRUE(view().press("upload"));
  ASSERT_TRUE(queue_.runUntil([&] { return presenter_->depth() == 0 && !uploaded_.empty(); }));
  EXPECT_EQ(uploaded_, std::vector<std::string>{stoppedPath_});
  EXPECT_NE(std::find(events_.begin(), events_.end(), "submitted"), events_.end());
}

TEST_F(AudioRecorderTest, AMissingFolderForTheTakeKeepsTheScreenReady) {
  directory_ = scratch_.path() + "/missing";
  open();
  ASSERT_TRUE(view().press("record"));
  EXPECT_EQ(recorder_->currentState(), NembraAudioRecorder::kReady);
  ASSERT_TRUE(view().alert());
  EXPECT_EQ(view().alert()->message, "Incorrect path for new audio file");
}

TEST(AudioRecorderTimeTest, TimeStringsAreWholeHoursMinutesAndSeconds) {
  struct Case {
    double seconds;
    const char* text;
  } cases[] = {{0, "00:00:00"}, {59.99, "00:00:59"}, {61, "00:01:01"}, {3661.5, "01:01:01"}};
  for (const Case& c : cases) EXPECT_EQ(NembraAudioRecorder::getTimeString(c.seconds), c.text);
}

}  // namespace
}  // namespace nembra
