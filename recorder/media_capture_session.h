// CaptureSession over the media plug-in's sources: a V4L2 camera or the virtual camera (FFmpeg's
// test pattern held to real time), and a microphone (PulseAudio, ALSA or the virtual tone), each
// read on a named thread of its own.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/media/media_source.h"
#include "platform/media/raw_frame_converter.h"
#include "recorder/capture_session.h"

namespace nembra {

// Threading: see CaptureSession.
class MediaCaptureSession final : public CaptureSession {
 public:
  MediaCaptureSession() = default;
  ~MediaCaptureSession() override;

  OptionalError configure(const CaptureSettings& settings, OptionalError& microphoneError) override;
  bool hasMicrophone() const override { return microphone_ != nullptr; }
  int cameraPositions() const override;
  int facing() const override { return settings_.facing; }

  void startRunning(CaptureSampleSink& sink) override;
  void stopRunning() override;
  bool isRunning() const override { return running_.load(); }
  OptionalError changeCamera() override;

  // The V4L2 devices present (/dev/video*), sorted; the first is the back camera, the second
  // the front one.
  static std::vector<std::string> cameraDevices();

 private:
  OptionalError openCamera(int facing, std::unique_ptr<MediaSource>& camera);
  void readCamera();
  void readMicrophone();

  CaptureSettings settings_;
  std::unique_ptr<MediaSource> camera_;
  std::unique_ptr<MediaSource> microphone_;
  std::unique_ptr<RawFrameConverter> videoConverter_;
  std::unique_ptr<RawFrameConverter> audioConverter_;
  CaptureSampleSink* sink_ = nullptr;
  std::atomic<bool> running_{false};
  std::atomic<bool> stopping_{false};
  std::thread cameraThread_;
  std::thread microphoneThread_;
  double frameInterval_ = 1.0 / 30;
};

}  // namespace nembra
