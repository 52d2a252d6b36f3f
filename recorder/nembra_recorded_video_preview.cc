#include "recorder/nembra_recorded_video_preview.h"

#include <mutex>

#include "nembra/main_queue.h"
#include "platform/media/media_backend.h"
#include "recorder/nembra_recorder.h"

namespace nembra {

// The engine keeps its surface as long as it lives; the view's may go first.
class NembraRecordedVideoPreview::ForwardingSurface final : public VideoSurface {
 public:
  void setTarget(VideoSurface* target) {
    std::lock_guard lock(mutex_);
    target_ = target;
  }
  void present(SharedVideoFrame frame) override {
    std::lock_guard lock(mutex_);
    if (target_) target_->present(std::move(frame));
  }
  void clear() override {
    std::lock_guard lock(mutex_);
    if (target_) target_->clear();
  }

 private:
  std::mutex mutex_;
  VideoSurface* target_ = nullptr;  // guarded by mutex_
};

NembraRecordedVideoPreview::NembraRecordedVideoPreview(MainQueue& mainQueue,
                                                       EngineFactory engineFactory)
    : mainQueue_(mainQueue), engineFactory_(std::move(engineFactory)) {}

NembraRecordedVideoPreview::~NembraRecordedVideoPreview() { killPlayer(); }

void NembraRecordedVideoPreview::viewDidLoad() {
  view().setTitle("Recorded video");
  view().setButton("play", {"play-white", "Play", true, false});
  view().setButton("retake", {"", "Retake", true, false});
  view().setButton("use", {"", "Use Video", true, false});
  view().bindKey("space", "play");
  view().bindKey("r", "retake");
  view().bindKey("enter", "use");
  if (!videoURL_.empty()) initPlayer();
}

void NembraRecordedVideoPreview::viewWillDisappear() { killPlayer(); }

void NembraRecordedVideoPreview::initPlayer() {
  killPlayer();
  surface_ = std::make_shared<ForwardingSurface>();
  surface_->setTarget(view().videoSurface());
  MediaPlayerEngineOptions options;
  options.surface = surface_;
  options.postCallback = callbacksOn(mainQueue_);
  options.observer = weak_from_this();
  engine_ = engineFactory_ ? engineFactory_(std::move(options))
                           : MediaBackend::shared().makePlayerEngine(std::move(options));
  const std::string path = videoURL_.rfind("file://", 0) == 0 ? videoURL_.substr(7) : videoURL_;
  if (engine_) engine_->setItems({MediaPlayerItem::file(path)});
  playing_ = false;
}

void NembraRecordedVideoPreview::showPlayImage() {
  if (presented()) {
    view().setButton("play", {playing_ ? "pause-white" : "play-white", playing_ ? "Pause" : "Play",
                              true, false});
  }
}

void NembraRecordedVideoPreview::play() {
  if (!engine_) return;
  if (playing_) {
    engine_->pause();
  } else {
    engine_->play();
  }
  playing_ = !playing_;
  showPlayImage();
}

void NembraRecordedVideoPreview::playerItemDidPlayToEnd(size_t) {
  playing_ = false;
  showPlayImage();
  if (engine_) {
    engine_->pause();
    engine_->seek(0);
  }
}

void NembraRecordedVideoPreview::killPlayer() {
  if (engine_) {
    engine_->pause();
    engine_->close();
    engine_.reset();
  }
  if (surface_) surface_->setTarget(nullptr);
  surface_.reset();
  playing_ = false;
  showPlayImage();
}

void NembraRecordedVideoPreview::retake() {
  killPlayer();
  auto delegate = previewDelegate_;
  dismiss([delegate] {
    if (auto recorder = delegate.lock()) recorder->retake();
  });
}

void NembraRecordedVideoPreview::upload() {
  killPlayer();
  auto delegate = previewDelegate_;
  dismiss([delegate, url = videoURL_] {
    if (auto recorder = delegate.lock()) recorder->uploadVideo(url);
  });
}

void NembraRecordedVideoPreview::buttonPressed(const std::string& name) {
  if (name == "play") {
    play();
  } else if (name == "retake") {
    retake();
  } else if (name == "use") {
    upload();
  }
}

}  // namespace nembra
