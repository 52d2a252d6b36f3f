// Plays a finished recording and offers "Retake" and "Use Video". The recorder is its preview
// delegate: it hears retake() and uploadVideo(url), after the player has stopped and this
// screen is dismissed.
//
// View: buttons "play" (space; "play-white" while stopped, "pause-white" while playing),
// "retake" (r), "use" ("Use Video", enter); the video surface shows the recording.
//
// Threading: main queue only; the engine's calls arrive on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/media/media_player_engine.h"
#include "platform/ui/screen.h"

namespace nembra {

class MainQueue;
class NembraRecorder;

class NembraRecordedVideoPreview final
    : public Screen,
      public MediaPlayerObserver,
      public std::enable_shared_from_this<NembraRecordedVideoPreview> {
 public:
  using EngineFactory =
      std::function<std::unique_ptr<MediaPlayerEngine>(MediaPlayerEngineOptions options)>;

  // |engineFactory| empty: the media plug-in's engine.
  explicit NembraRecordedVideoPreview(MainQueue& mainQueue, EngineFactory engineFactory = {});
  ~NembraRecordedVideoPreview() override;

  std::string name() const override { return "recorded-preview"; }

  void setVideoURL(std::string url) { videoURL_ = std::move(url); }
  const std::string& videoURL() const { return videoURL_; }
  void setVideoGravity(std::string gravity) { videoGravity_ = std::move(gravity); }
  void setPreviewDelegate(std::weak_ptr<NembraRecorder> delegate) {
    previewDelegate_ = std::move(delegate);
  }

  void play();
  void retake();
  void upload();
  void killPlayer();
  bool playing() const { return playing_; }
  bool hasPlayer() const { return engine_ != nullptr; }

  void buttonPressed(const std::string& name) override;
  void playerItemDidPlayToEnd(size_t index) override;

 protected:
  void viewDidLoad() override;
  void viewWillDisappear() override;

 private:
  class ForwardingSurface;
  void initPlayer();
  void showPlayImage();

  MainQueue& mainQueue_;
  EngineFactory engineFactory_;
  std::string videoURL_;
  std::string videoGravity_ = "aspect-fill";
  std::weak_ptr<NembraRecorder> previewDelegate_;
  std::unique_ptr<MediaPlayerEngine> engine_;
  std::shared_ptr<ForwardingSurface> surface_;
  bool playing_ = false;
};

}  // namespace nembra
