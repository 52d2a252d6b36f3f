#include "recorder/nembra_recorder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <random>
#include <thread>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/nembra_config.h"
#include "nembra/nembra_videos.h"
#include "platform/dispatch/serial_queue.h"
#include "platform/dispatch/thread_name.h"
#include "platform/files/file_lock.h"
#include "platform/ui/screen_presenter.h"
#include "recorder/capture_aids.h"
#include "recorder/cover_selector_controller.h"
#include "recorder/nembra_recorded_video_preview.h"
#include "recorder/recording_recovery.h"

namespace nembra {

namespace {

// Live encoder values the ingest expects.
constexpr int kLiveFrameRate = 30;
constexpr int kLiveAudioSampleRate = 22050;
constexpr int kLiveAudioChannels = 2;
constexpr int kLiveAudioBitrate = 64000;

std::string format(const char* pattern, double a, double b = 0, double c = 0) {
  char text[160];
  std::snprintf(text, sizeof text, pattern, a, b, c);
  return text;
}

std::string twoDigits(int64_t minutes, int64_t seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d", static_cast<int>(minutes),
                static_cast<int>(seconds));
  return text;
}

// The process's globally unique string for file names.
std::string uniqueName() {
  static std::mutex mutex;
  static std::mt19937_64 random{std::random_device{}()};
  std::lock_guard lock(mutex);
  const uint64_t high = random();
  const uint64_t low = random();
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(high >> 32),
                static_cast<unsigned>((high >> 16) & 0xFFFF), static_cast<unsigned>(high & 0xFFFF),
                static_cast<unsigned>(low >> 48),
                static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
  return text;
}

uint64_t fileSize(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

}  // namespace

NembraRecorder::NembraRecorder(Nembra& application, RecorderEnvironment environment,
                               std::string videoToken)
    : application_(application),
      env_(std::move(environment)),
      videoToken_(std::move(videoToken)),
      sessionQueue_(env_.sessionQueue),
      currentOrientation_(env_.orientation) {
  if (!sessionQueue_) sessionQueue_ = std::make_shared<SerialQueue>("com.nembra.recorder.session");
  videoPreview_ = std::make_shared<NembraRecordedVideoPreview>(application_.mainQueue());
}

NembraRecorder::~NembraRecorder() {
  if (session_) session_->stopRunning();
  {
    std::lock_guard lock(sampleMutex_);
    if (writer_) std::remove(moviePartPath(writer_->path()).c_str());
    writer_.reset();
    if (liveStreamer_) liveStreamer_->stop();
  }
  // A serial queue cannot be joined from its own thread.
  if (sessionQueue_ && sessionQueue_->isCurrent()) {
    std::thread([queue = std::move(sessionQueue_)]() mutable {
      setCurrentThreadName("com.nembra.recorder.end");
      queue.reset();
    }).detach();
  }
}

// ---- helpers ---------------------------------------------------------------------------------

void NembraRecorder::log(const std::string& message) { application_.log(message); }

template <typename Call>
void NembraRecorder::tellRecorderDelegate(Call call) {
  application_.mainQueue().async([&application = application_, call] {
    if (auto delegate = application.getRecorderDelegate()) call(*delegate);
  });
}

void NembraRecorder::onMain(std::function<void(NembraRecorder&)> task) {
  application_.mainQueue().async([weak = weak_from_this(), task = std::move(task)] {
    if (auto self = weak.lock()) task(*self);
  });
}

void NembraRecorder::onSession(std::function<void(NembraRecorder&)> task) {
  sessionQueue_->async([weak = weak_from_this(), task = std::move(task)] {
    if (auto self = weak.lock()) task(*self);
  });
}

void NembraRecorder::move(RecorderEvent event) {
  const RecorderState from = machine_.state();
  if (!machine_.transit(event)) {
    log(std::string("recorder: ") + recorderEventName(event) + " ignored in " +
        recorderStateName(from));
  }
}

void NembraRecorder::setButton(const std::string& name, bool enabled, std::optional<bool> hidden,
                               std::optional<std::string> image) {
  if (!presented()) return;
  ButtonState state = buttons_[name];
  state.enabled = enabled;
  if (hidden) state.hidden = *hidden;
  if (image) state.image = *image;
  if (name == "record") state.selected = recordButtonSelected_;
  if (name == "pause") state.selected = isPaused();
  buttons_[name] = state;
  view().setButton(name, state);
}

void NembraRecorder::showAlert(const std::string& title, const std::string& message) {
  if (presented()) view().showAlert({title, message, {"OK"}}, [](int) {});
}

int NembraRecorder::videoWidth() const {
  const VideoSize& size = application_.recorderConfig().getResolution();
  if (currentOrientation_ == 1 || currentOrientation_ == 2) return size.height;
  if (currentOrientation_ == 3 || currentOrientation_ == 4) return size.width;
  return 0;  // kept: any other orientation records at 0 x 0
}

int NembraRecorder::videoHeight() const {
  const VideoSize& size = application_.recorderConfig().getResolution();
  if (currentOrientation_ == 1 || currentOrientation_ == 2) return size.width;
  if (currentOrientation_ == 3 || currentOrientation_ == 4) return size.height;
  return 0;
}

double NembraRecorder::duration() const {
  std::lock_guard lock(sampleMutex_);
  return duration_;
}

bool NembraRecorder::isPaused() const {
  std::lock_guard lock(sampleMutex_);
  return isPaused_;
}

void NembraRecorder::waitForSessionQueue() {
  auto* queue = dynamic_cast<SerialQueue*>(sessionQueue_.get());
  if (queue && !queue->isCurrent()) queue->sync([] {});
}

void NembraRecorder::addFrameObserver(std::weak_ptr<CaptureSampleObserver> observer) {
  std::lock_guard lock(sampleMutex_);
  observers_.push_back(std::move(observer));
}

// ---- appearance and the session ----------------------------------------------------------------

void NembraRecorder::viewDidLoad() {
  const RecorderConfig& config = application_.recorderConfig();
  view().setTitle("Recorder");
  view().setLabel("countdown", "");
  view().setLabel("duration", "");
  view().setLabel("status", "");
  setButton("record", true, false, std::string("record-white"));
  const bool live = config.isLiveStreaming();
  setButton("pause", true, true, std::string("pause-white"));
  setButton("camera", true, config.shouldDisableCameraSwitch(), std::string("camera-flip"));
  setButton("close", true, false, std::string("close-white"));
  if (config.getStyle().getHideControls()) setControlsVisible(false);
  view().bindKey("space", "record");
  view().bindKey("p", "pause");
  view().bindKey("c", "camera");
  view().bindKey("q", "close");
  view().bindKey("escape", "close");
  (void)live;
  {
    std::lock_guard lock(sampleMutex_);
    surface_ = view().videoSurface();
    firstSampleTimestamp_ = 0;
  }
  setUpCaptureAids();
  onSession([](NembraRecorder& self) {
    self.recoverInterruptedRecordings();
    self.configureSession();
    self.appear();
  });
}

void NembraRecorder::viewWillDisappear() {
  stopStartDelay();
  if (aids_) aids_->attach(nullptr);
  {
    std::lock_guard lock(sampleMutex_);
    surface_ = nullptr;
  }
  visible_.store(false);
  onSession([](NembraRecorder& self) {
    if (self.session_) self.session_->stopRunning();
    self.isSessionRunning_ = false;
  });
}

void NembraRecorder::setUpCaptureAids() {
  auto aids = std::make_shared<CaptureAids>(application_, application_.mainQueue());
  aids->showMeters(&view(), showLightIndicator_, showSoundIndicator_);
  {
    std::lock_guard lock(sampleMutex_);
    aids_ = aids;
    observers_.push_back(aids);
  }
  if (application_.recorderConfig().shouldShowFaceOutline()) showFaceOutline_ = true;
  aids->faceOutlineView().setHidden(!showFaceOutline_);
  if (showFaceOutline_) followFaces();
}

// Faces are searched only once the outline is asked for: the detector is the costliest aid.
void NembraRecorder::followFaces() {
  if (!aids_ || aids_->facesFollowed()) return;
  if (OptionalError error =
          aids_->setFaceOutlineDrawable(application_.recorderConfig().getFaceOutlineDrawable())) {
    log("face outline image not used: " + error->message);
  }
  OptionalError error;
  std::unique_ptr<FaceDetector> detector =
      env_.makeFaceDetector ? env_.makeFaceDetector(error) : nullptr;
  if (!detector) {
    log("face detection unavailable: " + (error ? error->message : std::string("no detector")));
    return;
  }
  aids_->enableFaceDetection(std::move(detector));
}

void NembraRecorder::recoverInterruptedRecordings() {
  if (env_.recordingsDirectory.empty()) return;
  for (const std::string& path : RecordingRecovery::findInterrupted(env_.recordingsDirectory)) {
    OptionalError error = RecordingRecovery::finish(path);
    if (error) {
      log("interrupted recording " + path + " could not be finished: " + error->message);
      continue;
    }
    const std::string url = "file://" + path;
    log("recovered interrupted recording to " + url);
    tellRecorderDelegate([url](NembraRecorderDelegate& d) {
      if (d.recorderStopped) d.recorderStopped(url);
    });
  }
}

void NembraRecorder::configureSession() {
  if (setupResult_ != 0) return;
  const RecorderConfig& config = application_.recorderConfig();
  CaptureSettings settings = env_.capture;
  settings.facing = config.getFacing();
  // The camera is asked for the landscape size; portrait frames are cut from it by the encoder.
  settings.width = config.getResolution().width;
  settings.height = config.getResolution().height;
  session_ = env_.makeCaptureSession ? env_.makeCaptureSession() : nullptr;
  if (!session_) {
    log("Could not create video device input: no capture available");
    setupError_ = "no capture available";
    setupResult_ = 2;
    onMain([](NembraRecorder& self) { self.move(RecorderEvent::ConfigurationFailed); });
    return;
  }
  OptionalError microphoneError;
  OptionalError error = session_->configure(settings, microphoneError);
  if (error) {
    log("Could not create video device input: " + error->message);
    setupError_ = error->message;
    // A camera the user may not open is the platform's "not authorised".
    setupResult_ = error->kind == ErrorKind::File && error->code == EACCES ? 1 : 2;
    const RecorderEvent event = setupResult_ == 1 ? RecorderEvent::AuthorisationRefused
                                                  : RecorderEvent::ConfigurationFailed;
    onMain([event](NembraRecorder& self) { self.move(event); });
    return;
  }
  // The sample path runs on the capture threads: it takes the mode the session was set up in.
  live_.store(config.isLiveStreaming());
  if (microphoneError) {
    log("Could not create audio device input: " + microphoneError->message);
    microphoneError_ = microphoneError->message;
  }
  if (config.isLiveStreaming()) {
    log("live audio capture output added");
    log("live video capture output added");
    setupLiveEncoders();
  } else {
    log("asset audio capture output added");
    log("asset video capture output added");
  }
  onMain([](NembraRecorder& self) {
    self.move(RecorderEvent::Configured);
    self.setButton("camera", true,
                   self.application_.recorderConfig().shouldDisableCameraSwitch() ||
                       self.session_->cameraPositions() < 2);
  });
  tellRecorderDelegate([](NembraRecorderDelegate& d) {
    if (d.recorderReady) d.recorderReady();
  });
}

void NembraRecorder::appear() {
  if (setupResult_ == 0) {
    {
      std::lock_guard lock(sampleMutex_);
      timeOffset_.reset();
      discont_ = false;
    }
    // Not when the screen went while the session was being configured.
    if (visible_.load()) session_->startRunning(*this);
    isSessionRunning_ = session_->isRunning();
  } else if (setupResult_ == 1) {
    onMain([](NembraRecorder& self) {
      if (!self.presented()) return;
      self.view().showAlert(
          {"Nembra",
           "AVCam doesn't have permission to use the camera, please change privacy settings",
           {"OK", "Settings"}},
          [](int) {});
    });
  } else {
    onMain([](NembraRecorder& self) { self.showAlert("Nembra", "Unable to capture media"); });
  }
  onMain([](NembraRecorder& self) {
    const RecorderConfig& config = self.application_.recorderConfig();
    // Kept: auto-start with a start delay of 0 does not start.
    if (config.shouldAutoStartRecording() && config.getStartDelay() > 0) {
      self.toggleMovieRecording();
    }
  });
}

// ---- the record button -----------------------------------------------------------------------

void NembraRecorder::buttonPressed(const std::string& name) {
  if (name == "record") {
    toggleMovieRecording();
  } else if (name == "pause") {
    toggleMoviePaused();
  } else if (name == "camera") {
    changeCamera();
  } else if (name == "close") {
    onCloseButtonTap();
  }
}

void NembraRecorder::toggleMovieRecording() {
  if (setupResult_ != 0) {
    showAlert("Nembra", "Unable to capture media");
    return;
  }
  const RecorderConfig& config = application_.recorderConfig();
  bool running;
  {
    std::lock_guard lock(sampleMutex_);
    running = writer_ != nullptr || streamingNow_;
  }
  if (running) {
    if (config.shouldConfirmStopRecording()) {
      recordButtonSelected_ = true;
      setButton("record", buttons_["record"].enabled);
      const StopRecordingConfirmationDialogConfig& dialog =
          config.getStopRecordingConfirmationDialogConfig();
      if (!presented()) return;
      // The negative answer only closes the alert; the record button stays selected (kept).
      view().showAlert({dialog.getTitleText(),
                        dialog.getMesText(),
                        {dialog.getNegBtnText(), dialog.getPosBtnText()}},
                       [weak = weak_from_this()](int button) {
                         auto self = weak.lock();
                         if (!self || button != 1) return;
                         self->setButton("pause", self->buttons_["pause"].enabled, true);
                         self->recordButtonSelected_ = false;
                         self->setButton("record", self->buttons_["record"].enabled);
                         self->onMain([](NembraRecorder& s) { s.toggleVideoRecording(); });
                       });
    } else {
      toggleVideoRecording();
    }
    return;
  }
  currentStartDelay_ = config.getStartDelay();
  if (config.shouldAutoStartRecording() && currentStartDelay_ > 0) {
    updateUIRecordingStreamingStarting();
    stopStartDelay();
    move(RecorderEvent::CountdownStarted);
    startDelayTimer_ = env_.repeatingTimer(std::chrono::seconds(1), [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->updateStartDelay();
    });
  } else {
    toggleVideoRecording();
  }
}

void NembraRecorder::updateStartDelay() {
  if (presented()) view().setLabel("countdown", std::to_string(currentStartDelay_));
  if (currentStartDelay_ > 0) {
    const int seconds = currentStartDelay_;
    tellRecorderDelegate([seconds](NembraRecorderDelegate& d) {
      if (d.recorderCountdown) d.recorderCountdown(seconds);
    });
    --currentStartDelay_;
  } else {
    if (presented()) view().setLabel("countdown", "");
    stopStartDelay();
    internalToggleMovieRecording();
  }
}

void NembraRecorder::stopStartDelay() { startDelayTimer_.reset(); }

void NembraRecorder::toggleVideoRecording() {
  internalToggleMovieRecording();
  setButton("camera", false);
  setButton("record", false);
  setButton("pause", false);
}

void NembraRecorder::internalToggleMovieRecording() {
  if (application_.recorderConfig().isLiveStreaming()) {
    toggleStreaming();
    return;
  }
  updateUIRecordingStreamingStarting();
  const int orientation = currentOrientation_;
  onSession([orientation](NembraRecorder& self) {
    bool stopping;
    {
      std::lock_guard lock(self.sampleMutex_);
      stopping = self.writer_ != nullptr;
    }
    if (stopping) {
      self.finishRecording();
      return;
    }
    {
      std::lock_guard lock(self.sampleMutex_);
      self.firstSampleRendered_ = false;
      self.duration_ = 0;
      self.durationExceeded_ = false;
    }
    self.recordingStartOrientation_ = orientation;
    self.setupAssetWriter("");
  });
}

void NembraRecorder::startRecordingToFile(const std::string& path) {
  onSession([path](NembraRecorder& self) {
    {
      std::lock_guard lock(self.sampleMutex_);
      if (self.writer_) return;
      self.firstSampleRendered_ = false;
      self.duration_ = 0;
      self.durationExceeded_ = false;
    }
    self.setupAssetWriter(path);
  });
}

void NembraRecorder::stopRecording() {
  onSession([](NembraRecorder& self) {
    bool running;
    {
      std::lock_guard lock(self.sampleMutex_);
      running = self.writer_ != nullptr;
    }
    if (running) self.finishRecording();
  });
}

void NembraRecorder::setupAssetWriter(const std::string& requestedPath) {
  std::string path = requestedPath;
  if (path.empty()) path = env_.recordingsDirectory + "/" + uniqueName() + ".mp4";
  log("recording started with path: " + path);
  const RecorderConfig& config = application_.recorderConfig();
  MovieWriterSettings settings;
  settings.width = videoWidth();
  settings.height = videoHeight();
  settings.videoBitrate = config.getVideoBitrate();
  settings.hasAudio = session_ && session_->hasMicrophone();
  settings.audioSampleRate = config.getAudioSampleRate();
  settings.audioBitrate = config.getAudioBitrate();
  settings.audioChannels = 2;
  // A recording that stops by itself needs index room for no longer than that.
  if (config.getMaxDuration() > 0) {
    settings.indexRoomSeconds = static_cast<double>(config.getMaxDuration()) + 10;
  }
  // Held while the file is written, taken before the part file exists: a recording whose lock
  // is free was left by a dead process.
  std::unique_ptr<FileLock> lock = FileLock::tryAcquire(RecordingRecovery::lockPath(path), nullptr);
  OptionalError error;
  std::unique_ptr<MovieWriter> writer =
      env_.makeWriter ? env_.makeWriter(path, settings, error) : nullptr;
  if (!writer) {
    log("asset writer error: " + (error ? error->message : std::string("no writer")));
    log("video input can't be added");
    if (lock) lock->removeFileOnRelease();
    onMain([](NembraRecorder& self) {
      self.setButton("pause", true, true);
      self.updateUIRecordingStreamingComplete();
    });
    return;
  }
  log("video input successfully added");
  {
    std::lock_guard guard(sampleMutex_);
    writer_ = std::move(writer);
    writerLock_ = std::move(lock);
    writerStarted_ = false;
    writerFailed_ = false;
    beforeDuration_ = -1;
  }
  onMain([](NembraRecorder& self) {
    self.recordingError_.clear();
    self.move(RecorderEvent::WriterCreated);
    if (self.application_.recorderConfig().getStyle().getHideControls()) {
      self.setControlsVisible(false);
    }
    self.updateUIRecordingStreamingStarted();
  });
}

void NembraRecorder::finishRecording() {
  std::unique_ptr<MovieWriter> writer;
  std::unique_ptr<FileLock> lock;
  {
    std::lock_guard guard(sampleMutex_);
    writer = std::move(writer_);
    lock = std::move(writerLock_);
    isPaused_ = false;
  }
  if (!writer) return;
  onMain([](NembraRecorder& self) { self.move(RecorderEvent::FinishingStarted); });
  const std::string path = writer->path();
  OptionalError error = writer->finish();
  writer.reset();
  if (lock) lock->removeFileOnRelease();
  lock.reset();
  onMain([path, error](NembraRecorder& self) {
    self.move(RecorderEvent::WriterFinished);
    const std::string url = "file://" + path;
    self.log("recording finished to " + url);
    self.tellRecorderDelegate([url](NembraRecorderDelegate& d) {
      if (d.recorderStopped) d.recorderStopped(url);
    });
    self.processRecordedVideoAtURL(path, error);
  });
}

void NembraRecorder::processRecordedVideoAtURL(const std::string& path, OptionalError error) {
  log("recorded file size: " + std::to_string(fileSize(path)) + " bytes");
  {
    std::lock_guard lock(sampleMutex_);
    duration_ = std::ceil(duration_);
  }
  updateDuration();
  bool success = !error;
  if (error) {
    log("Movie file finishing error: " + error->message);
    // Finished as it stands: what reached the file is the recording.
    success = fileSize(path) > 0;
  }
  recordedPath_ = path;
  cleanup_ = [path] { std::remove(path.c_str()); };
  if (success) {
    const RecorderConfig& config = application_.recorderConfig();
    auto presenter = application_.screenPresenter();
    if (videoPreview_ && !config.shouldSendImmediately() && presenter) {
      videoPreview_->setVideoURL("file://" + path);
      videoPreview_->setVideoGravity(videoGravity_);
      videoPreview_->setPreviewDelegate(weak_from_this());
      move(RecorderEvent::PreviewShown);
      presenter->present(videoPreview_);
    } else {
      coverSelectedWithPath(path, nullptr);
    }
  } else {
    cleanup_();
  }
  updateUIRecordingStreamingComplete();
}

// ---- the sample path (capture threads) ----------------------------------------------------------

void NembraRecorder::captureOutput(CaptureSample& sample) {
  const bool video = sample.kind == CaptureSample::Kind::Video;
  std::vector<std::shared_ptr<CaptureSampleObserver>> observers;
  VideoSurface* surface = nullptr;
  {
    std::lock_guard lock(sampleMutex_);
    for (const auto& weak : observers_) {
      if (auto observer = weak.lock()) observers.push_back(std::move(observer));
    }
    surface = surface_;
    if (video && surface && sample.preview) {
      if (aids_ && aids_->hasFacesToDraw()) {
        // The outlines go over a copy: the sample's picture is shared with the observers.
        auto picture = std::make_shared<VideoFrame>(*sample.preview);
        aids_->drawFaces(*picture);
        surface->present(std::move(picture));
      } else {
        surface->present(sample.preview);
      }
    }
  }
  for (const auto& observer : observers) {
    if (video) {
      observer->captureVideoFrame(sample);
    } else {
      observer->captureAudioFrame(sample);
    }
  }

  std::lock_guard lock(sampleMutex_);
  if (isPaused_) return;
  // Pause gap removal: the first sample of either kind after a resume closes the gap for both.
  if (discont_) {
    const std::optional<double>& last = video ? lastVideo_ : lastAudio_;
    if (last) {
      double t = sample.pts;
      if (timeOffset_) t -= *timeOffset_;
      const double offset = t - *last;
      log(std::string("Setting offset from ") + (video ? "video" : "audio"));
      log(format("Adding %f to %f (currentCMTime %f)", offset, timeOffset_.value_or(0), t));
      timeOffset_ = timeOffset_ ? *timeOffset_ + offset : offset;
      log(format("timeOffset %f", *timeOffset_));
      discont_ = false;
    }
  }
  double time = sample.pts;
  if (timeOffset_ && *timeOffset_ > 0) time -= *timeOffset_;
  const double end = time + (sample.duration > 0 ? sample.duration : 0);
  (video ? lastVideo_ : lastAudio_) = end;

  const bool live = live_.load();
  if (!video) {
    if (live) {
      if (audioEncoder_ && sample.frame) {
        try {
          audioEncoder_->putCMSampleBuffer(*sample.frame);
        } catch (const std::exception& e) {
          log(e.what());
        }
      }
    } else if (firstSampleRendered_ && writer_ && !writerFailed_) {
      OptionalError error;
      if (sample.frame) error = writer_->appendAudio(*sample.frame, time);
      if (error) {
        log("audio sample buffer writing error");
        if (error->kind == ErrorKind::File) writerFailed(*error);
      } else {
        log("audio sample appended");
      }
    }
    return;
  }

  if (live) {
    if (videoEncoder_ && sample.frame) {
      try {
        videoEncoder_->putCVPixelBuffer(*sample.frame, time);
      } catch (const std::exception& e) {
        log(e.what());
      }
    }
    if (streamingNow_ && !firstSampleRendered_) {
      firstSampleTimestamp_ = time;
      firstSampleRendered_ = true;
    }
    duration_ = time - firstSampleTimestamp_;
  } else if (!blurActive_) {
    if (!durationExceeded_ && writer_) {
      if (!writerStarted_) {
        writerStarted_ = true;
        log(format("session started with time: %f", time));
        firstSampleTimestamp_ = time;
      }
      if (writerFailed_) {
        log("movie asset writer failed");
      } else {
        OptionalError error;
        if (sample.frame) error = writer_->appendVideo(*sample.frame, time);
        if (error) {
          log("video sample buffer writing error");
          if (error->kind == ErrorKind::File) writerFailed(*error);
        } else {
          firstSampleRendered_ = true;
        }
      }
      // |time| already has the offset taken off: the recorded duration excludes the pauses.
      duration_ = time - firstSampleTimestamp_;
    }
  }
  if (firstSampleRendered_ && (writer_ || streamingNow_)) {
    const auto whole = static_cast<int64_t>(std::floor(duration_));
    if (whole != beforeDuration_) {
      beforeDuration_ = whole;
      onMain([](NembraRecorder& self) { self.updateDuration(); });
    }
  }
}

// REQUIRES: sampleMutex_ held.
void NembraRecorder::writerFailed(const Error& error) {
  writerFailed_ = true;
  // A full disk or a vanished file: the recording stops and keeps what it has.
  onMain([message = error.message](NembraRecorder& self) {
    self.recordingError_ = message;
    self.application_.logError("recording stopped: " + message);
    if (self.presented()) self.view().setLabel("status", "recording stopped: " + message);
    self.stopRecording();
  });
}

void NembraRecorder::captureRuntimeError(const Error& error) {
  log("Capture session runtime error: " + error.message);
  // The camera went away: the file is finished as it stands.
  onMain([message = error.message](NembraRecorder& self) {
    self.recordingError_ = "camera stopped: " + message;
    if (self.presented()) self.view().setLabel("status", "camera stopped: " + message);
    self.stopRecording();
  });
}

void NembraRecorder::updateDuration() {
  double duration;
  {
    std::lock_guard lock(sampleMutex_);
    duration = duration_;
  }
  const auto d = static_cast<int64_t>(std::floor(duration));
  tellRecorderDelegate([d](NembraRecorderDelegate& delegate) {
    if (delegate.recorderCurrentRecordedDurationSeconds) {
      delegate.recorderCurrentRecordedDurationSeconds(d);
    }
  });
  const int64_t maxDuration = application_.recorderConfig().getMaxDuration();
  std::string text = twoDigits(d / 60, d % 60);
  if (maxDuration >= 1) {
    const int64_t left = std::max<int64_t>(0, maxDuration - d);
    text = twoDigits(left / 60, left % 60);
  }
  if (presented()) view().setLabel("duration", text);
  bool stop = false;
  {
    std::lock_guard lock(sampleMutex_);
    if (!durationExceeded_ && maxDuration > 0 && duration >= static_cast<double>(maxDuration) &&
        (writer_ || streamingNow_)) {
      durationExceeded_ = true;
      stop = true;
    }
  }
  if (stop) toggleVideoRecording();
}

// ---- pause, camera, close
// -------------------------------------------------------------------------

void NembraRecorder::toggleMoviePaused() {
  // Not while a start or stop is under way.
  if (!controlsEnabled_) return;
  bool paused;
  {
    std::lock_guard lock(sampleMutex_);
    if (!writer_) return;
    if (!isPaused_) {
      isPaused_ = true;
      discont_ = true;
    } else {
      isPaused_ = false;
    }
    paused = isPaused_;
  }
  move(RecorderEvent::PauseToggled);
  setButton("camera", !paused);
  setButton("record", !paused);
  setButton("pause", true);
}

void NembraRecorder::changeCamera() {
  setButton("camera", false);
  setButton("record", false);
  setButton("pause", false);
  onSession([](NembraRecorder& self) {
    OptionalError error = self.session_ ? self.session_->changeCamera()
                                        : OptionalError(Error::media("no capture session"));
    if (error) self.log("Could not add video device input to the session: " + error->message);
    self.onMain([](NembraRecorder& s) { s.updateUIRecordingStreamingComplete(); });
  });
}

void NembraRecorder::onCloseButtonTap() {
  log("closing recorder");
  {
    std::lock_guard lock(sampleMutex_);
    // Dropped, not finished: the part file goes with it.
    if (writer_) std::remove(moviePartPath(writer_->path()).c_str());
    writer_.reset();
    if (writerLock_) writerLock_->removeFileOnRelease();
    writerLock_.reset();
  }
  stopStartDelay();
  move(RecorderEvent::Closed);
  dismiss([&application = application_] {
    auto delegate = application.getRecorderDelegate();
    if (delegate && delegate->recorderCancelledByUser) {
      delegate->recorderCancelledByUser();
      application.log("recorder callback called");
    } else if (delegate) {
      application.log("recorder delegate is not responding to recorder did cancel selector");
    } else {
      application.log("recorder delegate is null");
    }
  });
}

void NembraRecorder::setShowFaceOutline(bool show) {
  showFaceOutline_ = show;
  if (!aids_) return;  // the load applies it
  aids_->faceOutlineView().setHidden(!show);
  if (show) followFaces();
}

void NembraRecorder::setShowLightIndicator(bool show) {
  showLightIndicator_ = show;
  if (aids_ && presented()) aids_->showMeters(&view(), showLightIndicator_, showSoundIndicator_);
}

void NembraRecorder::setShowSoundIndicator(bool show) {
  showSoundIndicator_ = show;
  if (aids_ && presented()) aids_->showMeters(&view(), showLightIndicator_, showSoundIndicator_);
}

void NembraRecorder::setControlsVisible(bool visible) {
  RecorderConfig& config = application_.recorderConfig();
  if (!visible) {
    for (const char* name : {"record", "pause", "camera", "close"}) {
      if (buttons_.count(name)) setButton(name, buttons_[name].enabled, true);
    }
    config.getStyle().setHideControls(true);
    // No preview without controls.
    config.setShouldSendImmediately(true);
    if (config.getStartDelay() < 0) config.setStartDelay(0);
  }
}

// ---- after the recording ----------------------------------------------------------------------

void NembraRecorder::retake() {
  tellRecorderDelegate([](NembraRecorderDelegate& d) {
    if (d.recorderRerecord) d.recorderRerecord();
  });
  if (cleanup_) cleanup_();
  cleanup_ = nullptr;
  move(RecorderEvent::Retaken);
  updateUIRecordingStreamingComplete();
}

void NembraRecorder::uploadVideo(const std::string& url) {
  const std::string path = url.rfind("file://", 0) == 0 ? url.substr(7) : url;
  log("file " + url + " captured");
  tellRecorderDelegate([](NembraRecorderDelegate& d) {
    if (d.recorderManuallySubmitted) d.recorderManuallySubmitted();
  });
  const RecorderConfig& config = application_.recorderConfig();
  if (!videoToken_.empty()) {
    log("going to rerecord video2 " + videoToken_);
    if (env_.rerecordVideo) env_.rerecordVideo(videoToken_, path, config.getExtraArgs(), {});
    move(RecorderEvent::Closed);
    dismiss();
  } else if (config.shouldEnableCoverShot()) {
    auto presenter = application_.screenPresenter();
    if (!presenter) return coverSelectedWithPath(path, nullptr);
    auto selector = std::make_shared<CoverSelectorController>(path, application_.mainQueue());
    selector->setDelegate(weak_from_this());
    presenter->present(selector);
  } else {
    coverSelectedWithPath(path, nullptr);
  }
}

void NembraRecorder::coverSelectedWithPath(const std::string& path, StillImagePtr image) {
  log("cover selected for video " + path);
  const Json data = application_.recorderConfig().getExtraArgs();
  auto create = env_.createVideo;
  if (image) {
    if (create) create(data, path, image, {});
  } else if (env_.defaultCover) {
    env_.defaultCover(path, [create, data, path](StillImagePtr cover) {
      if (create) create(data, path, cover, {});
    });
  }
  move(RecorderEvent::Closed);
  dismiss();
}

// ---- the controls ------------------------------------------------------------------------------

void NembraRecorder::updateUIRecordingStreamingStarting() {
  controlsEnabled_ = false;
  setButton("record", false);
  setButton("camera", false);
  setButton("pause", false);
}

void NembraRecorder::updateUIRecordingStreamingStarted() {
  controlsEnabled_ = true;
  const RecorderConfig& config = application_.recorderConfig();
  const bool hidden = config.getStyle().getHideControls();
  setButton("record", true, hidden, std::string("stop-white"));
  setButton("pause", true, hidden || !config.isPausedMode() || config.isLiveStreaming());
  setButton("camera", false);
}

void NembraRecorder::updateUIRecordingStreamingComplete() {
  controlsEnabled_ = true;
  const RecorderConfig& config = application_.recorderConfig();
  const bool hidden = config.getStyle().getHideControls();
  const bool cameras = session_ && session_->cameraPositions() > 1;
  setButton("camera", cameras, hidden || config.shouldDisableCameraSwitch());
  setButton("record", true, hidden, std::string("record-white"));
  setButton("pause", true, true);
}

// ---- live streaming
// ------------------------------------------------------------------------------

void NembraRecorder::setupLiveEncoders() {
  // libx264 takes even sides only.
  auto video = std::make_shared<H264Encoder>(videoWidth() & ~1, videoHeight() & ~1,
                                             application_.recorderConfig().getVideoBitrate(),
                                             kLiveFrameRate);
  video->setDelegate(std::static_pointer_cast<H264EncoderDelegate>(shared_from_this()));
  log("video encoder configured");
  auto audio =
      std::make_shared<AACEncoder>(kLiveAudioSampleRate, kLiveAudioChannels, kLiveAudioBitrate);
  audio->setDelegate(std::static_pointer_cast<AACEncoderDelegate>(shared_from_this()));
  log("audio encoder configure");  // kept without the "d": hosts match this line
  std::lock_guard lock(sampleMutex_);
  videoEncoder_ = std::move(video);
  audioEncoder_ = std::move(audio);
}

void NembraRecorder::toggleStreaming() {
  updateUIRecordingStreamingStarting();
  bool streaming;
  {
    std::lock_guard lock(sampleMutex_);
    streaming = streamingNow_;
    if (!streaming) firstSampleRendered_ = false;
  }
  if (!streaming) {
    startStreaming();
  } else {
    stopStreaming();
  }
}

void NembraRecorder::pauseStreaming() {
  std::lock_guard lock(sampleMutex_);
  if (streamingNow_) onMain([](NembraRecorder& self) { self.toggleStreaming(); });
}

void NembraRecorder::resumeStreaming() {
  std::lock_guard lock(sampleMutex_);
  if (!streamingNow_) onMain([](NembraRecorder& self) { self.toggleStreaming(); });
}

void NembraRecorder::startStreaming() {
  tellRecorderDelegate([](NembraRecorderDelegate& d) {
    if (d.streamingStarted) d.streamingStarted();
  });
  std::weak_ptr<NembraRecorder> weak = weak_from_this();
  MainQueue& mainQueue = application_.mainQueue();
  application_.videos().createLiveVideoWithData(
      application_.recorderConfig().getExtraArgs(),
      [weak, &mainQueue](const std::optional<Json>& json, const HttpResponse& response,
                         const OptionalError& error) {
        mainQueue.async([weak, json, status = response.status, error] {
          auto self = weak.lock();
          if (!self) return;
          self->log("video created with error = " + (error ? error->message : "(null)") +
                    ", response = " + (json ? json->dump() : "(null)") + " (" +
                    std::to_string(status) + ")");
          if (error) return self->onError(error->message);
          auto token = [&](const char* key) -> std::string {
            if (!json || !json->is_object() || !json->contains(key)) return "";
            const Json& part = (*json)[key];
            if (!part.is_object() || !part.contains("token") || !part["token"].is_string()) {
              return "";
            }
            return part["token"].get<std::string>();
          };
          self->liveVideoToken_ = token("video");
          self->streamToken_ = token("stream");
          const std::string url = self->application_.config().wowza_url;
          // Kept exactly as hosts have always had it: a trailing U+00DF after the address.
          self->liveTargetAddress_ = url + "\u00DF";
          self->liveStreamName_ = "applications/" + self->application_.token() + "/videos/" +
                                  self->liveVideoToken_ + "/streams/" + self->streamToken_ +
                                  "/video.mp4";
          if (url.empty())
            return self->onError("no target address specified for the live streaming");
          self->onSession([](NembraRecorder& s) {
            std::string failure;
            s.publishConfirmed_.store(false);
            std::shared_ptr<LiveStreamer> streamer = LiveStreamer::initWithTargetAddress(
                s.liveTargetAddress_, s.liveStreamName_,
                std::static_pointer_cast<LiveStreamerDelegate>(s.shared_from_this()), &failure);
            if (!streamer) return s.onError("failed to start streaming");
            {
              std::lock_guard lock(s.sampleMutex_);
              s.liveStreamer_ = streamer;
              s.streamingNow_ = true;
            }
            s.onMain([](NembraRecorder& m) { m.move(RecorderEvent::StreamerCreated); });
          });
        });
      });
}

void NembraRecorder::stopStreaming() {
  std::shared_ptr<LiveStreamer> streamer;
  {
    std::lock_guard lock(sampleMutex_);
    streamingNow_ = false;
    streamer = std::move(liveStreamer_);
  }
  if (streamer) streamer->stop();
  tellRecorderDelegate([](NembraRecorderDelegate& d) {
    if (d.streamingStopped) d.streamingStopped();
  });
  if (!liveVideoToken_.empty() && !streamToken_.empty()) {
    const std::string token = liveVideoToken_;
    const std::string stream = streamToken_;
    Nembra& application = application_;
    application_.videos().recorderSubmitWithVideoToken(
        token, stream, application_.recorderConfig().getExtraArgs(),
        [&application, token, stream](const std::optional<Json>&, const HttpResponse&,
                                      const OptionalError&) {
          application.mainQueue().async([&application, token, stream] {
            auto delegate = application.getUploadingDelegate();
            if (delegate && delegate->uploadFinishedWithPath) {
              delegate->uploadFinishedWithPath("live", token, stream);
            }
          });
        });
  }
  liveVideoToken_.clear();
  streamToken_.clear();
  move(RecorderEvent::Closed);
  dismiss();
}

void NembraRecorder::onPublishStart() {
  publishConfirmed_.store(true);
  onMain([](NembraRecorder& self) {
    self.log("live streaming successfully started");
    self.updateUIRecordingStreamingStarted();
  });
}

void NembraRecorder::onPublishStop() {
  onMain([](NembraRecorder& self) {
    self.log("live streamer stopped");
    {
      std::lock_guard lock(self.sampleMutex_);
      self.liveStreamer_.reset();
    }
    self.updateUIRecordingStreamingComplete();
  });
}

void NembraRecorder::onError(const std::string& message) {
  onMain([message](NembraRecorder& self) {
    self.log("Live streamer error: " + message);
    std::shared_ptr<LiveStreamer> streamer;
    {
      std::lock_guard lock(self.sampleMutex_);
      self.streamingNow_ = false;
      streamer = std::move(self.liveStreamer_);
    }
    if (streamer) streamer->stop();
    self.move(RecorderEvent::StreamerFailed);
    self.updateUIRecordingStreamingComplete();
    self.lastStreamingError_ = message;
    self.showAlert("Error", message);
  });
}

// Called from inside captureOutput, which holds sampleMutex_.
// Output made before the publish confirmation is dropped; the streamer starts at the next key
// frame.
void NembraRecorder::compressedVideoDataReceived(const EncodedVideoSample& sample) {
  if (!streamingNow_ || !liveStreamer_ || !publishConfirmed_.load()) return;
  // Sending to an ingest that went away does not fail; its closed receiving side tells.
  if (!liveStreamer_->isReceiving()) {
    publishConfirmed_.store(false);  // once
    onError("the live stream was cut: " + liveStreamer_->receiverFailure());
    return;
  }
  liveStreamer_->putVideoSample(sample);
}

void NembraRecorder::compressedAudioDataReceived(const std::vector<uint8_t>& data,
                                                 std::array<uint8_t, 2> asc, double pts) {
  if (streamingNow_ && liveStreamer_ && publishConfirmed_.load()) {
    liveStreamer_->putAudioSample(data, asc, pts);
  }
}

}  // namespace nembra
