#include "recorder/camera_screen_feed.h"

#include "nembra/application.h"
#include "platform/ui/screen_view.h"

namespace nembra {

bool CameraScreenFeed::open(ScreenView& view, Nembra& application, const CameraFeedOptions& options,
                            const std::string& who, std::function<void()> closed) {
  OptionalError error;
  feed_ = CameraFeed::open(options, error);
  if (!feed_) {
    view.setLabel("status", error->message);
    application.log(who + ": " + error->message);
    view.showAlert({"Nembra", error->message, {"OK"}}, [closed = std::move(closed)](int) {
      if (closed) closed();
    });
    return false;
  }
  preview_ = std::make_unique<CapturePreviewView>(view.videoSurface());
  int width = 0;
  int height = 0;
  view.pictureAreaSize(width, height);
  preview_->videoPreviewLayer().setLayerSize(width, height);
  preview_->setSession(feed_);
  return true;
}

void CameraScreenFeed::resized(int width, int height) {
  if (preview_) preview_->videoPreviewLayer().setLayerSize(width, height);
}

void CameraScreenFeed::stop() {
  if (feed_) feed_->stop();
  if (preview_) preview_->setSession(nullptr);
}

}  // namespace nembra
