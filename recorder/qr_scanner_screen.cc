#include "recorder/qr_scanner_screen.h"

#include "nembra/application.h"

namespace nembra {

QrScannerScreen::QrScannerScreen(Nembra& application, CameraFeedOptions camera)
    : application_(application), cameraOptions_(std::move(camera)) {}

QrScannerScreen::~QrScannerScreen() { stopCamera(); }

void QrScannerScreen::viewDidLoad() {
  view().setTitle("QR scanner");
  view().setButton("close", {"close-white", "Close", true, false});
  view().bindKey("q", "close");
  view().bindKey("escape", "close");
  view().setLabel("status", "Opening the camera");
  view().setLabel("code", "");

  std::weak_ptr<bool> alive = alive_;
  if (!camera_.open(view(), application_, cameraOptions_, "QR scanner", [this, alive] {
        if (alive.lock()) dismiss();
      })) {
    return;
  }
  TaskQueue& main = application_.mainQueue();
  scanner_ = std::make_shared<QrFrameScanner>(makeQrDecoder(),
                                              [this, alive, &main](const std::string& text) {
                                                main.async([this, alive, text] {
                                                  if (alive.lock()) codeFound(text);
                                                });
                                              });
  camera_.feed()->addObserver(scanner_);
  camera_.feed()->start();
  view().setLabel("status",
                  "Point the camera at a QR code (" + camera_.feed()->info().description + ")");
}

void QrScannerScreen::viewWillDisappear() { stopCamera(); }

void QrScannerScreen::stopCamera() {
  camera_.stop();
  scanner_.reset();
}

void QrScannerScreen::resized(int width, int height) { camera_.resized(width, height); }

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
