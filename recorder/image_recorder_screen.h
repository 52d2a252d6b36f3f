// The still-image recorder's screen: the camera's preview, a capture button that takes one
// picture and uploads it as an image (ImageRecorder), then closes. With |captureAfter| > 0 the
// picture is taken by itself that many seconds after the camera starts.
//
// Buttons: "capture" (space or enter), "close" (q or escape). Label: "status". No camera: an
// alert "Nembra" with the reason, and the screen closes when it is answered.
//
// Threading: main queue only.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/dispatch/timer.h"
#include "platform/ui/screen.h"
#include "recorder/camera_feed.h"
#include "recorder/camera_screen_feed.h"
#include "recorder/image_recorder.h"

namespace nembra {

class Nembra;

class ImageRecorderScreen final : public Screen {
 public:
  ImageRecorderScreen(Nembra& application, CameraFeedOptions camera,
                      std::chrono::milliseconds captureAfter = std::chrono::milliseconds(0));
  ~ImageRecorderScreen() override;

  std::string name() const override { return "image-recorder"; }

  void buttonPressed(const std::string& name) override;
  void resized(int width, int height) override;

 protected:
  void viewDidLoad() override;
  void viewWillDisappear() override;

 private:
  void capture();
  void stopCamera();

  Nembra& application_;
  const CameraFeedOptions cameraOptions_;
  const std::chrono::milliseconds captureAfter_;
  CameraScreenFeed camera_;
  std::shared_ptr<ImageRecorder> recorder_;
  std::unique_ptr<Timer> captureTimer_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
