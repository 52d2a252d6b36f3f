#include "recorder/nembra_recorder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <filesystem>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/nembra_config.h"
#include "nembra/nembra_videos.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/media/testing/media_test_files.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"
#include "recorder/capture_aids.h"
#include "recorder/recorder_screens.h"
#include "recorder/testing/fake_recorder_environment.h"
#include "recorder/testing/test_frames.h"

namespace nembra {
namespace {

constexpr double kFrame = 1.0 / 30;

class RecorderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    presenter_ = std::make_shared<ScreenPresenter>(ui_, queue_);
    nembra_.setScreenPresenter(presenter_);
    nembra_.config().useSingleServer("http://127.0.0.1:9");
    RecorderConfig& config = nembra_.recorderConfig();
    config.setResolution(*VideoSize::initWithWidth(16, 9));  // 1920 x 1080 under QUALITY_HIGH
    delegate_ = std::make_shared<NembraRecorderDelegate>();
    delegate_->recorderCountdown = [this](int s) { countdowns_.push_back(s); };
    delegate_->recorderStopped = [this](const std::string& url) { stopped_.push_back(url); };
    delegate_->recorderCurrentRecordedDurationSeconds = [this](int64_t s) {
      seconds_.push_back(s);
    };
    delegate_->recorderRerecord = [this] { ++rerecords_; };
    delegate_->recorderCancelledByUser = [this] { ++cancels_; };
    nembra_.setRecorderDelegate(delegate_);
  }

  void open(const std::string& videoToken = {}, int orientation = 3) {
    RecorderEnvironment env = testing::fakeRecorderEnvironment(queue_, log_, scratch_.path());
    env.orientation = orientation;
    if (customise_) customise_(env);
    recorder_ = std::make_shared<NembraRecorder>(nembra_, std::move(env), videoToken);
    presenter_->present(recorder_);
    queue_.runUntilIdle();
  }
  HeadlessScreenView& view() { return *ui_.topView(); }
  HeadlessScreenView& recorderView() { return *ui_.views().front(); }
  void tick() {
    ASSERT_TRUE(log_->tick) << "no countdown running";
    log_->tick();
    queue_.runUntilIdle();
  }
  // One sample as the capture thread would deliver it, then the main queue catches up.
  void sample(CaptureSample::Kind kind, double pts, double duration) {
    CaptureSample s;
    s.kind = kind;
    s.pts = pts;
    s.duration = duration;
    s.frame = std::make_shared<RawMediaFrame>(
        kind == CaptureSample::Kind::Video ? RawMediaFrame::Kind::Video
                                           : RawMediaFrame::Kind::Audio,
        nullptr, [](AVFrame*) {}, RawMediaFrame::Shape{}, pts);
    recorder_->captureOutput(s);
    queue_.runUntilIdle();
  }
  // Video at 30 fps and 1024-sample audio at 48 kHz over [from, to).
  void feed(double from, double to) {
    int64_t block = 0;
    for (int64_t i = 0; from + i / 30.0 < to - 1e-9; ++i) {
      const double t = from + i / 30.0;
      sample(CaptureSample::Kind::Video, t, kFrame);
      for (; from + block * 1024 / 48000.0 < t + kFrame - 1e-9; ++block) {
        sample(CaptureSample::Kind::Audio, from + block * 1024 / 48000.0, 1024.0 / 48000);
      }
    }
  }
  testing::FakeRecorderLog::Writer& writer() { return *log_->writers.back(); }

  std::function<void(RecorderEnvironment&)> customise_;
  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  HeadlessUi ui_;
  std::shared_ptr<ScreenPresenter> presenter_;
  testing::ScratchDirectory scratch_;
  std::shared_ptr<testing::FakeRecorderLog> log_ = std::make_shared<testing::FakeRecorderLog>();
  std::shared_ptr<NembraRecorderDelegate> delegate_;
  std::shared_ptr<NembraRecorder> recorder_;
  std::vector<int> countdowns_;
  std::vector<std::string> stopped_;
  std::vector<int64_t> seconds_;
  int rerecords_ = 0;
  int cancels_ = 0;
};

TEST_F(RecorderTest, CountdownOfThreeTicksThreeTwoOneAndRecordsAtTheFourthTick) {
  nembra_.recorderConfig().setStartDelay(3);
  open();
  EXPECT_EQ(recorder_->state(), RecorderState::Countdown);
  EXPECT_TRUE(log_->captureRunning);
  for (int i = 0; i < 3; ++i) tick();
  EXPECT_EQ(view().labelHistory("countdown"), (std::vector<std::string>{"", "3", "2", "1"}));
  EXPECT_EQ(countdowns_, (std::vector<int>{3, 2, 1}));
  EXPECT_TRUE(log_->writers.empty());
  tick();
  ASSERT_EQ(log_->writers.size(), 1u);
  EXPECT_EQ(recorder_->state(), RecorderState::Recording);
  EXPECT_FALSE(log_->tick) << "the countdown goes on after recording started";
  EXPECT_EQ(view().label("countdown"), "");
  EXPECT_EQ(view().button("record")->image, "stop-white");
}

TEST_F(RecorderTest, AutoStartWithNoDelayWaitsForTheButtonThenRecordsAtOnce) {
  nembra_.recorderConfig().setStartDelay(0);
  open();
  EXPECT_EQ(recorder_->state(), RecorderState::Idle);
  EXPECT_EQ(log_->timersMade, 0);
  EXPECT_TRUE(log_->writers.empty());
  EXPECT_TRUE(view().press("record"));
  queue_.runUntilIdle();
  EXPECT_EQ(log_->timersMade, 0);
  EXPECT_EQ(log_->writers.size(), 1u);

  EXPECT_TRUE(view().press("close"));
  queue_.runUntilIdle();
  EXPECT_EQ(cancels_, 1);
  EXPECT_EQ(recorder_->state(), RecorderState::Closed);
}

TEST_F(RecorderTest, MaxDurationStopsOnceAndWritesNothingAfterTheLimit) {
  RecorderConfig& config = nembra_.recorderConfig();
  config.setShouldAutoStartRecording(false);
  config.setMaxDuration(10);
  open();
  view().press("record");
  queue_.runUntilIdle();
  feed(100.0, 112.0);
  ASSERT_EQ(log_->writers.size(), 1u) << "the stop started a second recording";
  EXPECT_TRUE(writer().finished);
  EXPECT_EQ(stopped_.size(), 1u);
  ASSERT_FALSE(writer().video.empty());
  EXPECT_NEAR(writer().video.back() - writer().video.front(), 10.0, 1e-6);
  EXPECT_EQ(view().screenName(), "recorded-preview");
  const std::vector<std::string>& shown = recorderView().labelHistory("duration");
  ASSERT_GE(shown.size(), 2u);
  EXPECT_EQ(shown[1], "00:10");
  EXPECT_EQ(shown.back(), "00:00");
  EXPECT_EQ(seconds_.front(), 0);
}

TEST_F(RecorderTest, WithoutALimitTheElapsedTimeIsShown) {
  nembra_.recorderConfig().setShouldAutoStartRecording(false);
  open();
  view().press("record");
  queue_.runUntilIdle();
  feed(5.0, 7.5);
  EXPECT_EQ(view().label("duration"), "00:02");
  EXPECT_EQ(seconds_, (std::vector<int64_t>{0, 1, 2}));
}

TEST_F(RecorderTest, APauseOfFiveSecondsLeavesNoGapInEitherTrack) {
  RecorderConfig& config = nembra_.recorderConfig();
  config.setShouldAutoStartRecording(false);
  config.setIsPausedMode(true);
  open();
  view().press("record");
  queue_.runUntilIdle();
  EXPECT_FALSE(view().button("pause")->hidden);
  feed(0.0, 2.0);
  ASSERT_TRUE(view().press("pause"));
  EXPECT_TRUE(view().button("pause")->selected);
  EXPECT_FALSE(view().button("record")->enabled);
  feed(2.0, 7.0);  // dropped
  ASSERT_TRUE(view().press("pause"));
  feed(7.0, 9.0);
  EXPECT_NEAR(recorder_->duration(), 4.0 - kFrame, 1e-6);
  for (const std::vector<double>* track : {&writer().video, &writer().audio}) {
    for (size_t i = 1; i < track->size(); ++i) {
      EXPECT_LT((*track)[i] - (*track)[i - 1], 0.04) << "gap at " << (*track)[i - 1];
    }
  }
  // Both tracks take one offset: they still end together.
  EXPECT_NEAR(writer().video.back(), writer().audio.back(), 0.04);
}

TEST_F(RecorderTest, WriterSizeFollowsTheOrientation) {
  struct Case {
    int orientation;
    int width;
    int height;
  };
  for (const Case& c : {Case{1, 1080, 1920}, Case{2, 1080, 1920}, Case{3, 1920, 1080},
                        Case{4, 1920, 1080}, Case{0, 0, 0}, Case{5, 0, 0}}) {
    log_->writers.clear();
    nembra_.recorderConfig().setShouldAutoStartRecording(false);
    open({}, c.orientation);
    view().press("record");
    queue_.runUntilIdle();
    ASSERT_EQ(log_->writers.size(), 1u);
    EXPECT_EQ(writer().settings.width, c.width) << c.orientation;
    EXPECT_EQ(writer().settings.height, c.height) << c.orientation;
    view().press("close");
    queue_.runUntilIdle();
  }
}

TEST_F(RecorderTest, SendImmediatelyUploadsWithTheDefaultCoverEvenWithCoverShot) {
  RecorderConfig& config = nembra_.recorderConfig();
  config.setShouldAutoStartRecording(false);
  config.setShouldSendImmediately(true);
  config.setShouldEnableCoverShot(true);
  open();
  view().press("record");
  queue_.runUntilIdle();
  feed(0.0, 1.0);
  view().press("record");
  queue_.runUntilIdle();
  EXPECT_EQ(presenter_->depth(), 0u) << "a preview or cover selector was shown";
  ASSERT_EQ(log_->uploads.size(), 1u);
  EXPECT_EQ(log_->uploads[0].kind, "create");
  EXPECT_TRUE(log_->uploads[0].withCover);
  EXPECT_EQ(log_->covers, std::vector<std::string>{writer().path});
  EXPECT_EQ(stopped_, std::vector<std::string>{"file://" + writer().path});
}

TEST_F(RecorderTest, ReRecordingNeverAsksForACover) {
  RecorderConfig& config = nembra_.recorderConfig();
  config.setShouldAutoStartRecording(false);
  config.setShouldEnableCoverShot(true);
  open("vid123");
  view().press("record");
  queue_.runUntilIdle();
  feed(0.0, 1.0);
  view().press("record");
  queue_.runUntilIdle();
  ASSERT_EQ(view().screenName(), "recorded-preview");
  ASSERT_TRUE(view().press("use"));
  queue_.runUntilIdle();
  EXPECT_EQ(presenter_->depth(), 0u);
  ASSERT_EQ(log_->uploads.size(), 1u);
  EXPECT_EQ(log_->uploads[0].kind, "rerecord");
  EXPECT_EQ(log_->uploads[0].token, "vid123");
  EXPECT_TRUE(log_->covers.empty());
}

TEST_F(RecorderTest, RetakeFromThePreviewRemovesTheFileAndRecordsAgain) {
  nembra_.recorderConfig().setShouldAutoStartRecording(false);
  open();
  view().press("record");
  queue_.runUntilIdle();
  feed(0.0, 1.0);
  view().press("record");
  queue_.runUntilIdle();
  const std::string first = writer().path;
  ASSERT_TRUE(view().press("retake"));
  queue_.runUntilIdle();
  EXPECT_EQ(rerecords_, 1);
  EXPECT_FALSE(std::ifstream(first).good());
  EXPECT_EQ(recorder_->state(), RecorderState::Idle);
  EXPECT_TRUE(view().press("record"));
  queue_.runUntilIdle();
  EXPECT_EQ(log_->writers.size(), 2u);
}

TEST_F(RecorderTest, FrameObserversSeeEverySampleEvenWhilePaused) {
  struct Counter : CaptureSampleObserver {
    void captureVideoFrame(const CaptureSample&) override { ++video; }
    void captureAudioFrame(const CaptureSample&) override { ++audio; }
    int video = 0;
    int audio = 0;
  };
  auto counter = std::make_shared<Counter>();
  RecorderConfig& config = nembra_.recorderConfig();
  config.setShouldAutoStartRecording(false);
  config.setIsPausedMode(true);
  open();
  recorder_->addFrameObserver(counter);
  view().press("record");
  queue_.runUntilIdle();
  feed(0.0, 1.0);
  view().press("pause");
  feed(1.0, 2.0);
  EXPECT_EQ(counter->video, 60);
  EXPECT_EQ(counter->audio, 94);
  EXPECT_EQ(writer().video.size(), 30u);
}

TEST_F(RecorderTest, ACameraThatGoesAwayFinishesTheFileAsItStands) {
  nembra_.recorderConfig().setShouldAutoStartRecording(false);
  open();
  view().press("record");
  queue_.runUntilIdle();
  feed(0.0, 1.0);
  recorder_->captureRuntimeError(Error::media("unplugged"));
  queue_.runUntilIdle();
  EXPECT_TRUE(writer().finished);
  EXPECT_EQ(writer().video.size(), 30u);
  EXPECT_EQ(stopped_.size(), 1u);
}

TEST_F(RecorderTest, AFullDiskStopsTheRecordingAndKeepsWhatWasWritten) {
  nembra_.recorderConfig().setShouldAutoStartRecording(false);
  log_->failVideoAfter = 45;
  log_->writeFailure = Error::file("the disk is full", ENOSPC);
  open();
  view().press("record");
  queue_.runUntilIdle();
  feed(0.0, 3.0);
  EXPECT_EQ(writer().video.size(), 45u);
  EXPECT_EQ(writer().finishes, 1);
  EXPECT_TRUE(writer().audio.empty() || writer().audio.back() < 1.5 + kFrame)
      << "audio went on after the video failed";
  EXPECT_EQ(stopped_, std::vector<std::string>{"file://" + writer().path});
  EXPECT_EQ(recorderView().label("status"), "recording stopped: the disk is full");
  EXPECT_EQ(recorder_->recordingError(), "the disk is full");
  // What reached the disk is the recording: the preview offers it.
  EXPECT_EQ(view().screenName(), "recorded-preview");
  EXPECT_TRUE(std::filesystem::exists(writer().path));
}

TEST_F(RecorderTest, ARecordingLeftByAKilledProcessIsFinishedWhenARecorderStarts) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  testing::MediaTestFiles files;
  // Laid out as the writer leaves it: fragments, no index.
  const std::string part =
      files.make("left.mp4.part", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=30:duration=2",
                                   "-c:v", "libx264", "-f", "mp4", "-movflags",
                                   "frag_keyframe+empty_moov+default_base_moof"});
  ASSERT_FALSE(part.empty());
  const std::string path = scratch_.path() + "/left.mp4";
  std::filesystem::rename(part, moviePartPath(path));
  nembra_.recorderConfig().setShouldAutoStartRecording(false);
  open();
  EXPECT_EQ(stopped_, std::vector<std::string>{"file://" + path});
  EXPECT_TRUE(std::filesystem::file_size(path) > 0);
  EXPECT_FALSE(std::filesystem::exists(moviePartPath(path)));
}

TEST_F(RecorderTest, ACameraThatMayNotBeOpenedShowsThePermissionAlertAndRecordsNothing) {
  log_->configureError = Error::file("permission denied on /dev/video0", EACCES);
  nembra_.recorderConfig().setShouldAutoStartRecording(false);
  open();
  EXPECT_EQ(recorder_->state(), RecorderState::NotAuthorised);
  ASSERT_TRUE(view().alert());
  EXPECT_EQ(view().alert()->title, "Nembra");
  EXPECT_EQ(view().alert()->message,
            "AVCam doesn't have permission to use the camera, please change privacy settings");
  EXPECT_EQ(view().alert()->buttons, (std::vector<std::string>{"OK", "Settings"}));
  view().answerAlert("OK");
  view().press("record");
  ASSERT_TRUE(view().alert());
  EXPECT_EQ(view().alert()->message, "Unable to capture media");
  EXPECT_TRUE(log_->writers.empty());
  EXPECT_FALSE(log_->captureRunning);
}

TEST_F(RecorderTest, NoCameraIsAFailedConfiguration) {
  log_->configureError = Error::media("no camera found");
  open();
  EXPECT_EQ(recorder_->state(), RecorderState::Failed);
  ASSERT_TRUE(view().alert());
  EXPECT_EQ(view().alert()->message, "Unable to capture media");
  EXPECT_EQ(recorder_->setupError(), "no camera found");
}

TEST_F(RecorderTest, RecordCopiesTheAuthTokensAndPresentsTheInstalledRecorder) {
  nembra_.recorderConfig().setExtraArgs(
      Json{{"client_auth", "c-1"}, {"server_auth", "s-1"}, {"title", "t"}});
  RecorderScreens::install(std::make_shared<RecorderModuleScreens>(
      [this](RecorderEnvironment& env) {
        env = testing::fakeRecorderEnvironment(queue_, log_, scratch_.path());
      },
      [this](const std::shared_ptr<NembraRecorder>& made) { recorder_ = made; }));
  nembra_.record("tok");
  queue_.runUntilIdle();
  RecorderScreens::install(nullptr);
  EXPECT_EQ(nembra_.getClientAuthToken(), "c-1");
  EXPECT_EQ(nembra_.getServerAuthToken(), "s-1");
  ASSERT_TRUE(recorder_);
  EXPECT_EQ(view().screenName(), "recorder");
}

TEST_F(RecorderTest, StopConfirmationNoKeepsRecordingWithTheButtonLeftSelected) {
  RecorderConfig& config = nembra_.recorderConfig();
  config.setShouldAutoStartRecording(false);
  config.setShouldConfirmStopRecording(true);
  open();
  view().press("record");
  queue_.runUntilIdle();
  feed(0.0, 0.5);
  ASSERT_TRUE(view().press("record"));
  ASSERT_TRUE(view().alert());
  EXPECT_EQ(view().alert()->title, "Nembra");
  EXPECT_EQ(view().alert()->message, "Do you want to stop video recording?");
  EXPECT_EQ(view().alert()->buttons, (std::vector<std::string>{"No", "Yes"}));
  ASSERT_TRUE(view().answerAlert("No"));
  queue_.runUntilIdle();
  EXPECT_EQ(recorder_->state(), RecorderState::Recording);
  EXPECT_TRUE(view().button("record")->selected);
  EXPECT_FALSE(writer().finished);

  ASSERT_TRUE(view().press("record"));
  ASSERT_TRUE(view().answerAlert("Yes"));
  queue_.runUntilIdle();
  EXPECT_TRUE(writer().finished);
}

}  // namespace
}  // namespace nembra

namespace nembra {
namespace {

class OneFaceDetector final : public FaceDetector {
 public:
  std::vector<FaceBox> detect(const GrayImageView&) override { return {{40, 30, 20, 20}}; }
};

// The light meter, the sound level and the face outlines on the recorder's own screen.
class RecorderAidsTest : public RecorderTest {
 protected:
  void SetUp() override {
    RecorderTest::SetUp();
    nembra_.recorderConfig().setShouldAutoStartRecording(false);
    sensor_ = std::make_shared<NembraSensorDelegate>();
    sensor_->luxMeter = [this](double value) { brightness_.push_back(value); };
    sensor_->audioMeter = [this](double value) { levels_.push_back(value); };
    sensor_->faceDetected = [this](int64_t, const NembraRect& rect) { faces_.push_back(rect); };
    nembra_.setSensorDelegate(sensor_);
    customise_ = [this](RecorderEnvironment& env) {
      env.makeFaceDetector = [this](OptionalError&) -> std::unique_ptr<FaceDetector> {
        ++detectorsMade_;
        return std::make_unique<OneFaceDetector>();
      };
    };
  }
  // A camera picture of one grey level, with its preview copy, as the capture delivers it.
  void picture(uint8_t luma, double pts) {
    CaptureSample s;
    s.kind = CaptureSample::Kind::Video;
    s.pts = pts;
    s.duration = kFrame;
    s.preview = testing::solidFrame(160, 120, luma, pts);
    recorder_->captureOutput(s);
    queue_.runUntilIdle();
  }
  void sound(int16_t value, double pts) {
    CaptureSample s;
    s.kind = CaptureSample::Kind::Audio;
    s.pts = pts;
    s.pcm.assign(2048, value);
    s.channels = 2;
    recorder_->captureOutput(s);
    queue_.runUntilIdle();
  }
  SharedVideoFrame shown() { return recorderView().surface().latest(); }

  std::shared_ptr<NembraSensorDelegate> sensor_;
  std::vector<double> brightness_;
  std::vector<double> levels_;
  std::vector<NembraRect> faces_;
  int detectorsMade_ = 0;
};

TEST_F(RecorderAidsTest, TheMetersFollowThePicturesLightAndTheSoundsLevel) {
  open();
  picture(118, 0.0);  // mid-grey: good light
  std::optional<ButtonState> sun = view().button(LuxMeterView::kButton);
  ASSERT_TRUE(sun);
  EXPECT_EQ(sun->image, "sun-white");
  EXPECT_FALSE(sun->hidden);
  picture(4, kFrame);  // too dark: red, blinking
  EXPECT_EQ(view().button(LuxMeterView::kButton)->image, "sun-red");
  const bool first = view().button(LuxMeterView::kButton)->hidden;
  picture(4, 2 * kFrame);
  EXPECT_NE(view().button(LuxMeterView::kButton)->hidden, first);
  ASSERT_EQ(brightness_.size(), 3u);
  EXPECT_NEAR(brightness_[0], 2.0, 1e-9);
  EXPECT_LT(brightness_[1], -0.5);

  sound(-20000, 0.0);
  ASSERT_TRUE(view().slider(AudioLevelView::kSlider));
  EXPECT_DOUBLE_EQ(view().slider(AudioLevelView::kSlider)->value, 1.0);
  sound(0, 0.05);
  sound(0, 0.10);
  EXPECT_NEAR(view().slider(AudioLevelView::kSlider)->value, 0.90, 1e-9);
  EXPECT_EQ(levels_, (std::vector<double>{1.0, 0.0, 0.0}));
  EXPECT_EQ(detectorsMade_, 0) << "faces were searched without the outline";
}

TEST_F(RecorderAidsTest, AFaceFoundReachesTheDelegateAndIsOutlinedOverThePreview) {
  nembra_.recorderConfig().setShouldShowFaceOutline(true);
  open();
  picture(100, 0.0);
  ASSERT_TRUE(queue_.runUntil([&] { return !faces_.empty(); }, std::chrono::seconds(5)));
  EXPECT_EQ(faces_[0].x, 40);
  EXPECT_EQ(faces_[0].width, 20);
  picture(100, kFrame);
  SharedVideoFrame frame = shown();
  ASSERT_TRUE(frame);
  EXPECT_NE(testing::lumaAt(*frame, 40, 40), 100) << "no outline on the face's edge";
  EXPECT_EQ(testing::lumaAt(*frame, 10, 10), 100);

  // Turned off while recording: the preview goes back to the camera's own picture.
  recorder_->setShowFaceOutline(false);
  picture(100, 2 * kFrame);
  EXPECT_EQ(testing::lumaAt(*shown(), 40, 40), 100);
}

TEST_F(RecorderAidsTest, AidsTurnedOffShowNothingAndSearchNoFaces) {
  RecorderEnvironment env = testing::fakeRecorderEnvironment(queue_, log_, scratch_.path());
  customise_(env);
  recorder_ = std::make_shared<NembraRecorder>(nembra_, std::move(env));
  recorder_->setShowLightIndicator(false);
  recorder_->setShowSoundIndicator(false);
  presenter_->present(recorder_);
  queue_.runUntilIdle();
  picture(4, 0.0);
  sound(-20000, 0.0);
  for (int i = 1; i < 5; ++i) picture(100, i * kFrame);
  std::optional<ButtonState> sun = view().button(LuxMeterView::kButton);
  EXPECT_TRUE(!sun || sun->hidden);
  std::optional<SliderState> level = view().slider(AudioLevelView::kSlider);
  EXPECT_TRUE(!level || level->hidden);
  EXPECT_EQ(detectorsMade_, 0);
  EXPECT_EQ(testing::lumaAt(*shown(), 40, 40), 100);
  // Hidden meters still measure for the host.
  EXPECT_EQ(brightness_.size(), 5u);
  EXPECT_EQ(levels_, std::vector<double>{1.0});

  recorder_->setShowSoundIndicator(true);
  sound(-20000, 0.05);
  ASSERT_TRUE(view().slider(AudioLevelView::kSlider));
  EXPECT_FALSE(view().slider(AudioLevelView::kSlider)->hidden);
}

}  // namespace
}  // namespace nembra

namespace nembra {
namespace {

// Live mode against a loopback service whose RTMP ingest is not there.
class RecorderLiveTest : public RecorderTest {
 protected:
  void SetUp() override {
    RecorderTest::SetUp();
    server_.on("POST", "/session", [](const auto&, auto& reply) {
      reply.set_content(R"({"token":"sess"})", "application/json");
    });
    server_.on("POST", R"(/v1/applications/app/videos.*)",
               [this](const auto& request, auto& reply) {
                 if (request.target.find("recordersubmit") != std::string::npos) {
                   ++submits_;
                   reply.set_content("{}", "application/json");
                 } else {
                   reply.set_content(liveReply_, "application/json");
                 }
               });
    // One request per connection: a kept-alive one would hold the server's stop.
    server_.server().set_keep_alive_max_count(1);
    server_.start();
    nembra_.config().useSingleServer(server_.url());
    nembra_.config().server_api_url = server_.url();
    nembra_.config().wowza_url =
        "rtmp://127.0.0.1:" + std::to_string(testing::HttpTestServer::closedPort()) +
        "/record/_definst_";
    RecorderConfig& config = nembra_.recorderConfig();
    config.setIsLiveStreaming(true);
    config.setShouldAutoStartRecording(false);
    uploads_ = std::make_shared<NembraUploadingDelegate>();
    uploads_->uploadFinishedWithPath = [this](const std::string& path, const std::string& token,
                                              const std::string& stream) {
      finished_.push_back(path + " " + token + " " + stream);
    };
    nembra_.setUploadingDelegate(uploads_);
  }

  std::string liveReply_ = R"({"video":{"token":"vid1"},"stream":{"token":"str1"}})";
  std::atomic<int> submits_{0};
  std::shared_ptr<NembraUploadingDelegate> uploads_;
  std::vector<std::string> finished_;
  // Last, so that it stops before the members its handlers read go.
  testing::HttpTestServer server_;
};

TEST_F(RecorderLiveTest, BuildsTheTargetWithItsTrailingCharacterAndReportsARefusedIngest) {
  open();
  ASSERT_TRUE(view().press("record"));
  // While the service is asked, the controls wait.
  EXPECT_FALSE(view().button("record")->enabled);
  EXPECT_FALSE(view().button("camera")->enabled);
  EXPECT_FALSE(view().button("pause")->enabled);
  ASSERT_TRUE(queue_.runUntil([&] { return view().alert().has_value(); }));
  EXPECT_EQ(recorder_->liveTargetAddress(), nembra_.config().wowza_url + "\u00DF");
  EXPECT_EQ(recorder_->liveStreamName(), "applications/app/videos/vid1/streams/str1/video.mp4");
  EXPECT_EQ(view().alert()->title, "Error");
  EXPECT_EQ(view().alert()->message, "failed to start streaming");
  EXPECT_EQ(recorder_->state(), RecorderState::Idle);
  EXPECT_TRUE(view().button("record")->enabled);
}

TEST_F(RecorderLiveTest, WithoutAnIngestAddressTheStartFailsWithItsMessage) {
  nembra_.config().wowza_url = "";
  open();
  view().press("record");
  ASSERT_TRUE(queue_.runUntil([&] { return view().alert().has_value(); }));
  EXPECT_EQ(view().alert()->message, "no target address specified for the live streaming");
}

}  // namespace
}  // namespace nembra
