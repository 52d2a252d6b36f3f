#include "capture/nembra_audio_recorder.h"

#include <cmath>
#include <cstdio>

#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_uploading_handler.h"
#include "platform/dispatch/timer.h"

namespace nembra {

namespace {

constexpr auto kPlayTimerInterval = std::chrono::milliseconds(100);
constexpr int kLevelBarWidth = 20;

struct StateLook {
  const char* status;
  const char* mainImage;  // nullptr: unchanged
};

constexpr StateLook kLooks[] = {
    {"", "audio-record-start-black"}, {"Recording", "audio-record-stop-black"},
    {"Recording Paused", nullptr},    {"", "play-black"},
    {"Playing", "pause-black"},       {"", "play-black"},
};

std::string levelBar(float level) {
  const int filled = static_cast<int>(std::lround(level * kLevelBarWidth));
  return "[" + std::string(filled, '#') + std::string(kLevelBarWidth - filled, ' ') + "]";
}

}  // namespace

NembraAudioRecorder::NembraAudioRecorder(Nembra& application)
    : application_(application), viewModel_(application.mainQueue()) {}

NembraAudioRecorder::~NembraAudioRecorder() { *alive_ = false; }

std::string NembraAudioRecorder::getTimeString(double seconds) {
  const int total = seconds > 0 ? static_cast<int>(seconds) : 0;
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", total / 3600, total / 60 % 60, total % 60);
  return text;
}

void NembraAudioRecorder::viewDidLoad() {
  view().setTitle("Audio recorder");
  view().setLabel("status", "");
  view().setLabel("time", getTimeString(0));
  view().setLabel("duration", getTimeString(0));
  view().setLabel("waveform", "");
  view().setLabel("level", "");
  view().setButton("close", {"close-black", "Close"});
  view().bindKey("space", "record");
  view().bindKey("p", "pause");
  view().bindKey("r", "rerecord");
  view().bindKey("u", "upload");
  view().bindKey("escape", "close");
  view().bindKey("q", "close");
  setCurrentState(kReady);
  viewModel_.askAudioRecordingPermission([this](bool granted) {
    if (!granted) view().setLabel("status", "No permission to use the microphone");
  });
  viewModel_.audioMeteringLevelUpdate = [this](float level) {
    if (getAudioVisualizationMode() != AudioVisualization::Mode::Write) return;
    audioVisualizationView_.add(level);
    view().setLabel("level", levelBar(level));
    showWaveform();
  };
  viewModel_.audioDidFinish = [this] {
    if (currentState_ == kPlaying || currentState_ == kPlaybackPaused) {
      stopTimer();
      audioVisualizationView_.pause();
      currentTime_ = duration_;
      updateCurrentTimeText();
      setCurrentState(kRecorded);
    } else {
      audioVisualizationView_.pause();
    }
  };
  viewModel_.audioDidFail = [this](const Error& error) {
    if (currentState_ == kRecording || currentState_ == kRecordingPaused) stopRecording();
    showFailure(error);
  };
  currentTime_ = 0;
  duration_ = 0;
  updateCurrentTimeText();
}

void NembraAudioRecorder::buttonPressed(const std::string& name) {
  if (name == "record") onRecord();
  if (name == "pause") onPauseOrResume();
  if (name == "rerecord") onRerecord();
  if (name == "upload") onUpload();
  if (name == "close") onClose();
}

void NembraAudioRecorder::sliderMoved(const std::string& name, double value) {
  if (name == "time") timeChanged(value);
}

void NembraAudioRecorder::setCurrentState(int state) {
  currentState_ = state;
  if (!presented()) return;
  const StateLook& look = kLooks[state];
  view().setLabel("status", look.status);
  if (look.mainImage) view().setButton("record", {look.mainImage, look.status});

  const bool recording = state == kRecording || state == kRecordingPaused;
  ButtonState pause;
  pause.image =
      state == kRecordingPaused ? "audio-record-resume-black" : "audio-record-pause-black";
  pause.title = state == kRecordingPaused ? "Resume" : "Pause";
  pause.hidden = !recording || !application_.recorderConfig().isPausedMode();
  view().setButton("pause", pause);

  const bool reviewing = state >= kRecorded;
  view().setButton("rerecord", {"record-black", "Record again", true, !reviewing});
  view().setButton("upload", {"check-black", "Upload", true, !reviewing});
  SliderState slider;
  slider.value = duration_ > 0 ? currentTime_ / duration_ : 0;
  slider.hidden = !reviewing;
  view().setSlider("time", slider);
  view().setLabel("duration", reviewing ? getTimeString(duration_) : "");
  if (!recording) view().setLabel("level", "");

  auto delegate = application_.getRecorderDelegate();
  if (!delegate) return;
  switch (state) {
    case kReady:
      if (delegate->recorderReady) delegate->recorderReady();
      break;
    case kRecording:
      if (delegate->recorderStarted) delegate->recorderStarted();
      break;
    case kRecordingPaused:
    case kPlaybackPaused:
      if (delegate->recorderPaused) delegate->recorderPaused();
      break;
    case kRecorded:
      if (delegate->recorderStopped) {
        delegate->recorderStopped(viewModel_.audioFilePathLocal.value_or(""));
      }
      break;
    case kPlaying:
      if (delegate->recorderPlaying) delegate->recorderPlaying();
      break;
  }
}

void NembraAudioRecorder::onRecord() {
  switch (currentState_) {
    case kReady:
      viewModel_.startRecording([this](const std::optional<std::string>& path,
                                       const OptionalError& error) {
        if (!path) {
          showFailure(*error);
          return;
        }
        application_.log("sound record created at url " + *path);
        audioVisualizationView_.reset();
        lastReportedSecond_ = -1;
        setCurrentState(kRecording);
        chronometer_ = std::make_unique<Chronometer>(
            application_.mainQueue(), 0.0, [this](double elapsed) { chronometerTicked(elapsed); });
        chronometer_->start(true);
      });
      break;
    case kRecording:
    case kRecordingPaused:
      stopRecording();
      break;
    case kRecorded:
    case kPlaybackPaused: {
      duration_ = viewModel_.startPlaying();
      audioVisualizationView_.setMeteringLevels(
          viewModel_.meteringLevels.value_or(std::vector<float>{}));
      audioVisualizationView_.play(duration_);
      setCurrentState(kPlaying);
      playTimer_ = Timer::repeating(application_.mainQueue(), kPlayTimerInterval,
                                    [this] { playTimerTicked(); });
      break;
    }
    case kPlaying:
      viewModel_.pausePlaying();
      audioVisualizationView_.pause();
      stopTimer();
      setCurrentState(kPlaybackPaused);
      break;
  }
}

void NembraAudioRecorder::chronometerTicked(double elapsed) {
  currentTime_ = elapsed;
  view().setLabel("time", getTimeString(elapsed));
  const auto seconds = static_cast<int64_t>(std::floor(elapsed));
  if (seconds != lastReportedSecond_) {
    lastReportedSecond_ = seconds;
    auto delegate = application_.getRecorderDelegate();
    if (delegate && delegate->recorderCurrentRecordedDurationSeconds) {
      delegate->recorderCurrentRecordedDurationSeconds(seconds);
    }
  }
  const int64_t maximum = application_.recorderConfig().getMaxDuration();
  if (maximum > 0 && elapsed >= static_cast<double>(maximum)) stopRecording();
}

void NembraAudioRecorder::stopRecording() {
  if (chronometer_) chronometer_->stop();
  viewModel_.meteringLevels = audioVisualizationView_.scaleSoundDataToFitScreen();
  audioVisualizationView_.setMode(AudioVisualization::Mode::Read);
  audioVisualizationView_.setMeteringLevels(*viewModel_.meteringLevels);
  audioVisualizationView_.setProgress(0);
  if (currentState_ == kRecordingPaused) viewModel_.resumeRecording();
  const OptionalError error = viewModel_.stopRecording();
  duration_ = viewModel_.recordedSeconds();
  currentTime_ = 0;
  setCurrentState(kRecorded);
  updateCurrentTimeText();
  showWaveform();
  if (error) showFailure(*error);
}

void NembraAudioRecorder::onPauseOrResume() {
  if (currentState_ == kRecording) {
    setCurrentState(kRecordingPaused);
    viewModel_.pauseRecording();
    if (chronometer_) chronometer_->pause();
  } else if (currentState_ == kRecordingPaused) {
    setCurrentState(kRecording);
    viewModel_.resumeRecording();
    if (chronometer_) chronometer_->resume();
  }
}

void NembraAudioRecorder::onRerecord() {
  currentTime_ = 0;
  updateCurrentTimeText();
  stopTimer();
  setCurrentState(kReady);
  viewModel_.pausePlaying();
  viewModel_.resetRecording();
  duration_ = 0;
  audioVisualizationView_.reset();
  showWaveform();
  auto delegate = application_.getRecorderDelegate();
  if (delegate && delegate->recorderRerecord) delegate->recorderRerecord();
}

void NembraAudioRecorder::onUpload() {
  const std::string path = viewModel_.audioFilePathLocal.value_or("");
  if (path.empty() || currentState_ < kRecorded) return;
  viewModel_.pausePlaying();
  stopTimer();
  application_.mainQueue().async([&application = application_] {
    auto delegate = application.getRecorderDelegate();
    if (delegate && delegate->recorderManuallySubmitted) delegate->recorderManuallySubmitted();
  });
  application_.uploadingHandler().uploadWithType(AUDIO, path,
                                                 application_.recorderConfig().extraArgs());
  dismiss();
}

void NembraAudioRecorder::onClose() {
  if (currentState_ == kRecording || currentState_ == kRecordingPaused) stopRecording();
  viewModel_.pausePlaying();
  stopTimer();
  dismiss([&application = application_] {
    auto delegate = application.getRecorderDelegate();
    if (delegate && delegate->recorderCancelledByUser) delegate->recorderCancelledByUser();
  });
}

void NembraAudioRecorder::timeChanged(double sliderValue) {
  currentTime_ = sliderValue * duration_;
  viewModel_.setCurrentTime(currentTime_);
  audioVisualizationView_.setProgress(duration_ > 0 ? currentTime_ / duration_ : 0);
  updateCurrentTimeText();
  showWaveform();
}

void NembraAudioRecorder::stopTimer() { playTimer_.reset(); }

void NembraAudioRecorder::playTimerTicked() {
  currentTime_ = std::min(viewModel_.currentTime(), duration_);
  audioVisualizationView_.setProgress(duration_ > 0 ? currentTime_ / duration_ : 0);
  updateCurrentTimeText();
  showWaveform();
}

void NembraAudioRecorder::updateCurrentTimeText() {
  if (!presented()) return;
  view().setLabel("time", getTimeString(currentTime_));
  if (currentState_ >= kRecorded) view().setLabel("duration", getTimeString(duration_));
  SliderState slider;
  slider.value = duration_ > 0 ? currentTime_ / duration_ : 0;
  slider.hidden = currentState_ < kRecorded;
  view().setSlider("time", slider);
}

AudioVisualization::Mode NembraAudioRecorder::getAudioVisualizationMode() const {
  return currentState_ == kRecording || currentState_ == kRecordingPaused
             ? AudioVisualization::Mode::Write
             : AudioVisualization::Mode::Read;
}

void NembraAudioRecorder::showWaveform() {
  if (presented()) view().setLabel("waveform", audioVisualizationView_.render());
}

void NembraAudioRecorder::showFailure(const Error& error) {
  application_.logError("audio recorder: " + error.message);
  if (!presented()) return;
  view().showAlert({"Audio recorder", error.message, {"OK"}}, [](int) {});
}

}  // namespace nembra
