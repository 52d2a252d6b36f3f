#include "recorder/camera_feed.h"

#include <algorithm>
#include <variant>

#include "platform/dispatch/thread_name.h"
#include "platform/media/media_backend.h"

namespace nembra {

std::shared_ptr<CameraFeed> CameraFeed::open(const CameraFeedOptions& options, OptionalError& error,
                                             const CameraCatalog& catalog) {
  const std::optional<CameraChoice> choice = catalog.choose(
      options.camera, options.position, options.width, options.height, options.fps, error);
  if (!choice) return nullptr;
  VideoCaptureRequest request;
  request.kind =
      choice->isVirtual ? VideoCaptureRequest::Kind::Lavfi : VideoCaptureRequest::Kind::V4l2;
  request.device = choice->device;
  request.width = options.width;
  request.height = options.height;
  request.fps = options.fps;
  MediaBackend& backend = MediaBackend::shared();
  std::unique_ptr<MediaSource> source = backend.openVideoCapture(request, error);
  if (!source) return nullptr;
  return std::make_shared<CameraFeed>(std::move(source), backend.makeRawFrameReader());
}

CameraFeed::CameraFeed(std::unique_ptr<MediaSource> source, std::unique_ptr<RawFrameReader> reader)
    : source_(std::move(source)), reader_(std::move(reader)) {}

CameraFeed::~CameraFeed() { stop(); }

void CameraFeed::addObserver(std::weak_ptr<CaptureFrameObserver> observer) {
  std::lock_guard lock(mutex_);
  observers_.push_back(std::move(observer));
}

void CameraFeed::removeObserver(const CaptureFrameObserver* observer) {
  std::lock_guard lock(mutex_);
  std::erase_if(observers_, [observer](const std::weak_ptr<CaptureFrameObserver>& entry) {
    auto live = entry.lock();
    return !live || live.get() == observer;
  });
}

std::vector<std::shared_ptr<CaptureFrameObserver>> CameraFeed::observers() {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<CaptureFrameObserver>> live;
  for (const auto& entry : observers_) {
    if (auto observer = entry.lock()) live.push_back(std::move(observer));
  }
  return live;
}

void CameraFeed::start() {
  std::lock_guard lock(mutex_);
  if (stopping_.load() || running_.exchange(true)) return;
  thread_ = std::thread([this] {
    setCurrentThreadName("com.nembra.camera");
    readLoop();
  });
}

void CameraFeed::stop() {
  std::thread thread;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    source_->interrupt();
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.join();
  running_ = false;
}

void CameraFeed::readLoop() {
  std::vector<int16_t> samples;
  for (;;) {
    MediaSourceItem item;
    OptionalError error;
    if (!source_->read(item, error)) {
      if (!stopping_.load()) {
        const Error reason =
            error ? *error : Error::media(source_->info().description + " stopped delivering");
        for (const auto& observer : observers()) observer->onCaptureError(reason);
      }
      return;
    }
    const auto* raw = std::get_if<RawMediaFrame>(&item);
    if (!raw) continue;  // cameras deliver raw media only
    if (raw->kind() == RawMediaFrame::Kind::Video) {
      SharedVideoFrame frame = reader_->picture(*raw, 0, 0, error);
      if (!frame) continue;  // one picture that won't convert is skipped, not fatal
      for (const auto& observer : observers()) observer->onVideoFrame(frame);
    } else {
      int channels = 0;
      if (reader_->samples(*raw, samples, channels)) continue;
      for (const auto& observer : observers()) {
        observer->onAudioSamples(samples.data(), samples.size(), channels);
      }
    }
  }
}

}  // namespace nembra
