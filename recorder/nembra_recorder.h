// The full-screen camera recorder: one capture session, one recording at a time into an MP4
// file (or a live stream), the countdown, the duration display and its limit, pause, camera
// flip, close, then the recorded preview, the cover choice and the upload. Its states and moves
// are RecorderStateMachine's.
//
// View: buttons "record" (space), "pause" (p), "camera" (c), "close" (q); labels "countdown",
// "duration", "status"; the video surface shows the camera with the face outlines drawn over it;
// the light meter (display-only button "lux-meter") and the sound level (slider "audio-level")
// unless turned off. Alerts for the failures.
//
// Threading: a screen, so main queue only, except captureOutput/captureRuntimeError which the
// capture threads call. Session changes run on the session queue. Every delegate call arrives
// on the main queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/media/movie_writer.h"
#include "platform/ui/screen.h"
#include "recorder/capture_session.h"
#include "recorder/recorder_environment.h"
#include "recorder/recorder_state.h"
#include "streaming/aac_encoder.h"
#include "streaming/h264_encoder.h"
#include "streaming/live_streamer.h"

namespace nembra {

class CaptureAids;
class Nembra;
class NembraRecordedVideoPreview;
class FileLock;

class NembraRecorder final : public Screen,
                             public CaptureSampleSink,
                             public LiveStreamerDelegate,
                             public H264EncoderDelegate,
                             public AACEncoderDelegate,
                             public std::enable_shared_from_this<NembraRecorder> {
 public:
  // initWithNembraApplication: / initWithNembraApplication:videoToken:. |application| must
  // outlive the recorder.
  NembraRecorder(Nembra& application, RecorderEnvironment environment, std::string videoToken = {});
  ~NembraRecorder() override;

  std::string name() const override { return "recorder"; }

  // Actions (the buttons call them; hosts and tests may too).
  void toggleMovieRecording();
  void toggleMoviePaused();
  void changeCamera();
  void startRecordingToFile(const std::string& path = {});
  void stopRecording();
  void onCloseButtonTap();
  // From the recorded preview and the cover selector.
  void retake();
  void uploadVideo(const std::string& url);
  void coverSelectedWithPath(const std::string& path, StillImagePtr image);
  // Live mode.
  void pauseStreaming();
  void resumeStreaming();

  void setShowFaceOutline(bool show);
  void setShowLightIndicator(bool show);
  void setShowSoundIndicator(bool show);
  void setVideoGravity(std::string gravity) { videoGravity_ = std::move(gravity); }
  const std::string& videoGravity() const { return videoGravity_; }
  void setControlsVisible(bool visible);

  // Blocks until the session work posted so far has run (not on the session queue). A host
  // that ends its process once the state has moved calls it first: that work still uses the
  // application object.
  void waitForSessionQueue();

  // The capture aids attach here (held weakly; a gone observer is skipped).
  void addFrameObserver(std::weak_ptr<CaptureSampleObserver> observer);
  // The recorder's own aids (meters and face outlines), made when the view loads; null before.
  const std::shared_ptr<CaptureAids>& captureAids() const { return aids_; }
  // The recorded preview, presented after a recording unless the file goes at once.
  const std::shared_ptr<NembraRecordedVideoPreview>& recordedVideoPreview() const {
    return videoPreview_;
  }

  RecorderState state() const { return machine_.state(); }
  // 0 success, 1 not authorised, 2 configuration failed.
  int setupResult() const { return setupResult_; }
  // Why the session could not be configured, and why the microphone could not be opened ("" when
  // it was); read once the state has left Configuring.
  const std::string& setupError() const { return setupError_; }
  const std::string& microphoneError() const { return microphoneError_; }
  double duration() const;
  bool isPaused() const;
  // The file of the last finished recording ("" before).
  const std::string& recordedPath() const { return recordedPath_; }
  int videoWidth() const;
  int videoHeight() const;
  // The target address and stream name of the last live start.
  const std::string& liveTargetAddress() const { return liveTargetAddress_; }
  const std::string& liveStreamName() const { return liveStreamName_; }
  // Why the last recording stopped by itself (a full disk, the camera gone), "" when it did not.
  const std::string& recordingError() const { return recordingError_; }
  // The message of the last live-streaming failure (the "Error" alert's), "" when none.
  const std::string& lastStreamingError() const { return lastStreamingError_; }

  // CaptureSampleSink, on the capture threads.
  void captureOutput(CaptureSample& sample) override;
  void captureRuntimeError(const Error& error) override;

  // LiveStreamerDelegate, on the RTMP client's thread.
  void onPublishStart() override;
  void onPublishStop() override;
  void onError(const std::string& message) override;
  // Encoder outputs, on the capture threads.
  void compressedVideoDataReceived(const EncodedVideoSample& sample) override;
  void compressedAudioDataReceived(const std::vector<uint8_t>& data, std::array<uint8_t, 2> asc,
                                   double pts) override;

  void buttonPressed(const std::string& name) override;

 protected:
  void viewDidLoad() override;
  void viewWillDisappear() override;

 private:
  void configureSession();
  void sessionConfigured(OptionalError error);
  void appear();
  void recoverInterruptedRecordings();
  void move(RecorderEvent event);
  void toggleVideoRecording();
  void internalToggleMovieRecording();
  void updateStartDelay();
  void stopStartDelay();
  void setupAssetWriter(const std::string& path);
  void finishRecording();
  void processRecordedVideoAtURL(const std::string& path, OptionalError error);
  void updateDuration();
  void writerFailed(const Error& error);
  void setUpCaptureAids();
  void followFaces();

  void toggleStreaming();
  void startStreaming();
  void stopStreaming();
  void setupLiveEncoders();

  void updateUIRecordingStreamingStarting();
  void updateUIRecordingStreamingStarted();
  void updateUIRecordingStreamingComplete();
  void setButton(const std::string& name, bool enabled, std::optional<bool> hidden = {},
                 std::optional<std::string> image = {});
  void showAlert(const std::string& title, const std::string& message);
  void log(const std::string& message);
  template <typename Call>
  void tellRecorderDelegate(Call call);
  // Runs |task| on the main queue if the recorder still exists then.
  void onMain(std::function<void(NembraRecorder&)> task);
  void onSession(std::function<void(NembraRecorder&)> task);

  Nembra& application_;
  RecorderEnvironment env_;
  const std::string videoToken_;
  std::shared_ptr<TaskQueue> sessionQueue_;
  RecorderStateMachine machine_;
  std::shared_ptr<NembraRecordedVideoPreview> videoPreview_;

  // Session (session queue).
  std::unique_ptr<CaptureSession> session_;
  std::atomic<int> setupResult_{0};
  bool isSessionRunning_ = false;
  std::atomic<bool> visible_{true};
  std::atomic<bool> live_{false};
  std::string setupError_;
  std::string microphoneError_;

  // Countdown (main queue).
  int currentStartDelay_ = 0;
  std::unique_ptr<RecorderTimer> startDelayTimer_;

  // Presentation (main queue).
  int currentOrientation_ = 3;
  int recordingStartOrientation_ = 3;
  bool showLightIndicator_ = true;
  bool showSoundIndicator_ = true;
  bool showFaceOutline_ = false;
  std::string videoGravity_ = "aspect-fill";
  bool recordButtonSelected_ = false;
  std::map<std::string, ButtonState> buttons_;
  bool controlsEnabled_ = true;
  std::string recordedPath_;
  std::function<void()> cleanup_;  // run by retake and after a failed recording
  std::string liveTargetAddress_;
  std::string liveStreamName_;
  std::string lastStreamingError_;
  std::string recordingError_;
  std::string streamToken_;
  std::string liveVideoToken_;

  // The sample path: everything below is guarded by sampleMutex_.
  mutable std::mutex sampleMutex_;
  std::unique_ptr<MovieWriter> writer_;
  std::unique_ptr<FileLock> writerLock_;
  bool writerStarted_ = false;
  bool writerFailed_ = false;
  bool firstSampleRendered_ = false;
  double firstSampleTimestamp_ = 0;
  double duration_ = 0;
  bool durationExceeded_ = false;
  int64_t beforeDuration_ = -1;
  std::optional<double> timeOffset_;
  std::optional<double> lastVideo_;
  std::optional<double> lastAudio_;
  bool discont_ = false;
  bool isPaused_ = false;
  bool streamingNow_ = false;
  bool blurActive_ = false;
  std::shared_ptr<LiveStreamer> liveStreamer_;
  // Set by the ingest's publish confirmation (on the RTMP receiver thread): the client refuses
  // media before it.
  std::atomic<bool> publishConfirmed_{false};
  std::shared_ptr<H264Encoder> videoEncoder_;
  std::shared_ptr<AACEncoder> audioEncoder_;
  std::vector<std::weak_ptr<CaptureSampleObserver>> observers_;
  VideoSurface* surface_ = nullptr;
  // Made on the main queue before the session starts; read on the capture threads to draw the
  // face outlines over the preview.
  std::shared_ptr<CaptureAids> aids_;
};

}  // namespace nembra
