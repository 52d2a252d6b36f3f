#include "recorder/qr_scanner_screen.h"

#include "nembra/application.h"

namespace nembra {

QrScannerScreen::QrScannerScreen(Nembra& application, CameraFeedOptions camera)
    : application_(application), camera_(std::move(camera)) {}

QrScannerScreen::~QrScannerScreen() { stopCamera(); }

void QrScannerScreen::viewDidLoad() {
  view().setTitle("QR scanner");
  view().setButton("close", {"close-white", "Close", true, false});
  view().bindKey("q", "close");
  view().bindKey("escape", "close");
  view().setLabel("status", "Opening the camera");
  view().setLabel("code", "");

  OptionalError error;
  feed_ = CameraFeed::open(camera_, error);
  if (!feed_) {
    view().setLabel("status", error->message);
    application_.log("QR scanner: " + error->message);
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

  std::weak_ptr<bool> alive = alive_;
  TaskQueue& main = application_.mainQueue();
  scanner_ = std::make_shared<QrFrameScanner>(makeQrDecoder(),
                                              [this, alive, &main](const std::string& text) {
                                                main.async([this, alive, text] {
                                                  if (alive.lock()) codeFound(text);
                                                });
                                              });
  feed_->addObserver(scanner_);
  feed_->start();
  view().setLabel("status", "Point the camera at a QR code (" + feed_->info().description + ")");
}

void QrScannerScreen::viewWillDisappear() { stopCamera(); }

void QrScannerScreen::stopCamera() {
  if (feed_) feed_->stop();
  if (preview_) preview_->setSession(nullptr);
  scanner_.reset();
}

void QrScannerScreen::resized(int width, int height) {
  if (preview_) preview_->videoPreviewLayer().setLayerSize(width, height);
}

void QrScannerScreen::buttonPressed(const std::string& name) {
  if (name == "close") dismiss();
}

void QrScannerScreen::codeFound(const std::string& text) {
  if (closing_ || !presented() || text == lastCode_) return;
  lastCode_ = text;
  view().setLabel("code", text);
  view().setLabel("status", "Read a QR code");
  application_.log("QR code scanned: " + text);
  // Read before telling the delegate, which may change it.
  const bool close = application_.qrScannerConfig().shouldCloseAfterSuccessfulScan();
  auto delegate = application_.getQRScannerDelegate();
  if (delegate && delegate->qrCodeScanned) delegate->qrCodeScanned(text);
  if (close && presented()) {
    closing_ = true;
    stopCamera();
    dismiss();
  }
}

}  // namespace nembra
