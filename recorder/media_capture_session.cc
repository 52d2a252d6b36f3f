#include "recorder/media_capture_session.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "platform/dispatch/thread_name.h"
#include "platform/media/media_backend.h"
#include "platform/media/media_source_pacer.h"

namespace nembra {

namespace {

// A clear error for the two failures a user can act on.
Error cameraError(const std::string& device, const Error& error) {
  if (error.message.find("Permission denied") != std::string::npos) {
    return Error::file("permission denied on " + device, EACCES);
  }
  return Error::media("no camera at " + device + ": " + error.message);
}

constexpr double kPreviewInterval = 1.0 / 15 - 0.005;

}  // namespace

MediaCaptureSession::~MediaCaptureSession() { stopRunning(); }

std::vector<std::string> MediaCaptureSession::cameraDevices() {
  std::vector<std::string> devices;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/dev", ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("video", 0) == 0) devices.push_back(entry.path().string());
  }
  std::sort(devices.begin(), devices.end());
  return devices;
}

int MediaCaptureSession::cameraPositions() const {
  if (settings_.camera == "lavfi") return 2;
  if (!settings_.camera.empty()) return 1;
  return std::min<int>(2, static_cast<int>(cameraDevices().size()));
}

OptionalError MediaCaptureSession::openCamera(int facing, std::unique_ptr<MediaSource>& camera) {
  const int fps = settings_.frameRate > 0 ? settings_.frameRate : 30;
  OptionalError error;
  if (settings_.camera == "lavfi") {
    // Pictures only (the microphone is a source of its own), and a pattern of its own for each
    // position so that a camera switch shows.
    VideoCaptureRequest request;
    request.kind = VideoCaptureRequest::Kind::Lavfi;
    request.device = std::string(facing == 1 ? "testsrc" : "testsrc2") +
                     "=size=" + std::to_string(settings_.width > 0 ? settings_.width : 1280) + "x" +
                     std::to_string(settings_.height > 0 ? settings_.height : 720) +
                     ":rate=" + std::to_string(fps) + (facing == 1 ? ",format=yuv420p" : "");
    camera = MediaBackend::shared().openVideoCapture(request, error);
    return error;
  }
  if (settings_.camera.rfind("lavfi:", 0) == 0) {
    VideoCaptureRequest request;
    request.kind = VideoCaptureRequest::Kind::Lavfi;
    request.device = settings_.camera.substr(6);
    camera = MediaBackend::shared().openVideoCapture(request, error);
    if (error) return Error::media("no camera at " + settings_.camera + ": " + error->message);
    return std::nullopt;
  }
  std::string device = settings_.camera;
  if (device.empty()) {
    const std::vector<std::string> devices = cameraDevices();
    if (devices.empty()) return Error::media("no camera found");
    device = devices[std::min<size_t>(facing == 1 ? 1 : 0, devices.size() - 1)];
  }
  camera = MediaBackend::shared().openCamera(device, settings_.width, settings_.height, fps, error);
  if (error) return cameraError(device, *error);
  return std::nullopt;
}

OptionalError MediaCaptureSession::configure(const CaptureSettings& settings,
                                             OptionalError& microphoneError) {
  settings_ = settings;
  frameInterval_ = 1.0 / (settings.frameRate > 0 ? settings.frameRate : 30);
  if (OptionalError error = openCamera(settings.facing, camera_)) return error;
  if (settings.microphone != "none") {
    microphone_ = MediaBackend::shared().openMicrophone(settings.microphone, microphoneError);
  }
  videoConverter_ = MediaBackend::shared().makeRawFrameConverter();
  audioConverter_ = MediaBackend::shared().makeRawFrameConverter();
  return std::nullopt;
}

void MediaCaptureSession::startRunning(CaptureSampleSink& sink) {
  if (running_.load() || !camera_) return;
  sink_ = &sink;
  stopping_.store(false);
  running_.store(true);
  cameraThread_ = std::thread([this] {
    setCurrentThreadName("com.nembra.capture.video");
    readCamera();
  });
  if (microphone_) {
    microphoneThread_ = std::thread([this] {
      setCurrentThreadName("com.nembra.capture.audio");
      readMicrophone();
    });
  }
}

void MediaCaptureSession::stopRunning() {
  stopping_.store(true);
  if (camera_) camera_->interrupt();
  if (microphone_) microphone_->interrupt();
  if (cameraThread_.joinable()) cameraThread_.join();
  if (microphoneThread_.joinable()) microphoneThread_.join();
  running_.store(false);
}

OptionalError MediaCaptureSession::changeCamera() {
  const int facing = settings_.facing == 1 ? 0 : 1;
  std::unique_ptr<MediaSource> camera;
  if (OptionalError error = openCamera(facing, camera)) return error;
  CaptureSampleSink* sink = sink_;
  const bool wasRunning = running_.load();
  // The microphone keeps running; only the picture thread restarts.
  stopping_.store(true);
  if (camera_) camera_->interrupt();
  if (cameraThread_.joinable()) cameraThread_.join();
  camera_ = std::move(camera);
  settings_.facing = facing;
  stopping_.store(false);
  if (wasRunning && sink) {
    cameraThread_ = std::thread([this] {
      setCurrentThreadName("com.nembra.capture.video");
      readCamera();
    });
  }
  return std::nullopt;
}

void MediaCaptureSession::readCamera() {
  // The virtual camera's pictures come as fast as they are made: held to real time here.
  MediaSourcePacer pacer(settings_.camera.rfind("lavfi", 0) == 0);
  double lastPreview = -1e9;
  MediaSourceItem item;
  OptionalError error;
  while (!stopping_.load()) {
    if (!camera_->read(item, error)) break;
    auto* raw = std::get_if<RawMediaFrame>(&item);
    if (!raw || raw->kind() != RawMediaFrame::Kind::Video) continue;
    if (!pacer.waitUntilDue(raw->pts(), stopping_)) break;
    CaptureSample sample;
    sample.kind = CaptureSample::Kind::Video;
    sample.pts = raw->pts();
    sample.duration = frameInterval_;
    auto frame = std::make_shared<RawMediaFrame>(std::move(*raw));
    // Previews at most 15 a second: enough to watch and for the capture aids, at half the cost.
    if (settings_.previewWidth > 0 && sample.pts - lastPreview >= kPreviewInterval) {
      sample.preview = videoConverter_->picture(*frame, settings_.previewWidth);
      lastPreview = sample.pts;
    }
    sample.frame = std::move(frame);
    sink_->captureOutput(sample);
  }
  if (!stopping_.load()) {
    sink_->captureRuntimeError(error ? *error : Error::media("the camera stopped delivering"));
  }
}

void MediaCaptureSession::readMicrophone() {
  MediaSourceItem item;
  OptionalError error;
  while (!stopping_.load()) {
    if (!microphone_->read(item, error)) break;
    auto* raw = std::get_if<RawMediaFrame>(&item);
    if (!raw || raw->kind() != RawMediaFrame::Kind::Audio) continue;
    CaptureSample sample;
    sample.kind = CaptureSample::Kind::Audio;
    sample.pts = raw->pts();
    sample.duration =
        raw->sampleRate() > 0 ? static_cast<double>(raw->sampleCount()) / raw->sampleRate() : 0;
    auto frame = std::make_shared<RawMediaFrame>(std::move(*raw));
    audioConverter_->pcm16(*frame, sample.pcm, sample.channels);
    sample.frame = std::move(frame);
    sink_->captureOutput(sample);
  }
}

}  // namespace nembra
