#include "recorder/image_recorder_screen.h"

#include "nembra/application.h"

namespace nembra {

ImageRecorderScreen::ImageRecorderScreen(Nembra& application, CameraFeedOptions camera,
                                         std::chrono::milliseconds captureAfter)
    : application_(application), camera_(std::move(camera)), captureAfter_(captureAfter) {}

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

  OptionalError error;
  feed_ = CameraFeed::open(camera_, error);
  if (!feed_) {
    view().setLabel("status", error->message);
    application_.log("image recorder: " + error->message);
    std::weak_ptr<bool> alive = alive_;
    view().showAlert({"Nembra", error->message, {"OK"}}, [this, alive](int) {
      if (alive.lock()) dismiss();
    });
    return;
  }
  preview_ = std::make_unique<CapturePreviewView>(view().videoSurface());
  int width = 0;
  int height = 0;
  view().pictureAreaSize(width, height);
  preview_->videoPreviewLayer().setLayerSize(width, height);
  preview_->setSession(feed_);
  recorder_ = std::make_shared<ImageRecorder>(application_);
  feed_->addObserver(recorder_);
  feed_->start();
  view().setButton("capture", {"record-white", "Take picture", true, false});
  view().setLabel("status", "Ready (" + feed_->info().description + ")");
  if (captureAfter_.count() > 0) {
    std::weak_ptr<bool> alive = alive_;
    captureTimer_ = Timer::oneShot(application_.mainQueue(), captureAfter_, [this, alive] {
      if (alive.lock()) capture();
    });
  }
}

void ImageRecorderScreen::viewWillDisappear() { stopCamera(); }

void ImageRecorderScreen::stopCamera() {
  captureTimer_.reset();
  if (feed_) feed_->stop();
  if (preview_) preview_->setSession(nullptr);
}

void ImageRecorderScreen::resized(int width, int height) {
  if (preview_) preview_->videoPreviewLayer().setLayerSize(width, height);
}

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
