// The camera of a camera screen (the still-image recorder, the QR scanner): opens it and shows
// its pictures on the screen's video surface, filling the picture area; when it can't be opened
// the screen says why (the "status" label and an alert "Nembra" with the reason and "OK") and
// the log gets "<who>: <reason>".
//
// Threading: main queue only; the feed's observers are called on the feed's thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "recorder/camera_feed.h"
#include "recorder/capture_preview_view.h"

namespace nembra {

class Nembra;
class ScreenView;

class CameraScreenFeed {
 public:
  // |view| must outlive the preview (stop() before it goes). On failure |closed| runs once the
  // alert is answered, and false is returned.
  bool open(ScreenView& view, Nembra& application, const CameraFeedOptions& options,
            const std::string& who, std::function<void()> closed);

  // Null until open succeeded.
  const std::shared_ptr<CameraFeed>& feed() const { return feed_; }
  // The picture area's new size.
  void resized(int width, int height);
  // Stops the camera and takes the preview off the surface; no observer is called after it.
  void stop();

 private:
  std::shared_ptr<CameraFeed> feed_;
  std::unique_ptr<CapturePreviewView> preview_;
};

}  // namespace nembra
