#include "recorder/image_recorder_screen.h"

#include "nembra/application.h"

namespace nembra {

ImageRecorderScreen::ImageRecorderScreen(Nembra& application, CameraFeedOptions camera,
                                         std::chrono::milliseconds captureAfter)
    : application_(application), cameraOptions_(std::move(camera)), captureAfter_(captureAfter) {}

ImageRecorderScreen::~ImageRecorderScreen() { stopCamera(); }

void ImageRecorderScreen::viewDidLoad() {
  view().setTitle("Take a picture");
  view().setButton("capture", {"record-white", "Take picture", false, false});
  view().setButton("close", {"close-white", "Close", true, false});
  view().bindKey("space", "capture");
  view().bindKey("enter", "capture");
  view().bindKey("q", "close");
  view().bindKey("escape", "close");
  view().setLabel("status", "Opening the camera");

  std::weak_ptr<bool> alive = alive_;
  if (!camera_.open(view(), application_, cameraOptions_, "image recorder", [this, alive] {
        if (alive.lock()) dismiss();
      })) {
    return;
  }
  recorder_ = std::make_shared<ImageRecorder>(application_);
  camera_.feed()->addObserver(recorder_);
  camera_.feed()->start();
  view().setButton("capture", {"record-white", "Take picture", true, false});
  view().setLabel("status", "Ready (" + camera_.feed()->info().description + ")");
  if (captureAfter_.count() > 0) {
    captureTimer_ = Timer::oneShot(application_.mainQueue(), captureAfter_, [this, alive] {
      if (alive.lock()) capture();
    });
  }
}

void ImageRecorderScreen::viewWillDisappear() { stopCamera(); }

void ImageRecorderScreen::stopCamera() {
  captureTimer_.reset();
  camera_.stop();
}

void ImageRecorderScreen::resized(int width, int height) { camera_.resized(width, height); }

void ImageRecorderScreen::buttonPressed(const std::string& name) {
  if (name == "capture") capture();
  if (name == "close") dismiss();
}

void ImageRecorderScreen::capture() {
  if (!recorder_ || !presented()) return;
  std::weak_ptr<bool> alive = alive_;
  ImageRecorder::Callbacks callbacks;
  callbacks.captured = [this, alive](const ImageRecorderResult& result) {
    if (!alive.lock() || !presented()) return;
    if (result.error) {
      view().setLabel("status", result.error->message);
      view().setButton("capture", {"record-white", "Take picture", true, false});
      return;
    }
    // The upload goes on without the screen: the uploading delegate follows it.
    stopCamera();
    dismiss();
  };
  if (recorder_->takePicture(std::move(callbacks))) {
    view().setButton("capture", {"record-white", "Take picture", false, false});
    view().setLabel("status", "Taking the picture");
  }
}

}  // namespace nembra
