// The QR scanner: the camera's preview with every QR code read from it. Each new code is shown
// (label "code"), told to the QR delegate's qrCodeScanned, and, when the configuration's
// shouldCloseAfterSuccessfulScan is set, closes the scanner. A code held in front of the camera
// is told once; a different one is told again.
//
// Buttons: "close" (q or escape). Labels: "status" (what the scanner is doing or why it can't),
// "code" (the last text read). No camera: an alert "Nembra" with the reason, and the scanner
// closes when it is answered.
//
// Threading: main queue only.
#pragma once

#include <memory>
#include <string>

#include "platform/ui/screen.h"
#include "recorder/camera_feed.h"
#include "recorder/camera_screen_feed.h"
#include "recorder/qr_frame_scanner.h"

namespace nembra {

class Nembra;
class TaskQueue;

class QrScannerScreen final : public Screen {
 public:
  QrScannerScreen(Nembra& application, CameraFeedOptions camera);
  ~QrScannerScreen() override;

  std::string name() const override { return "qr-scanner"; }

  void buttonPressed(const std::string& name) override;
  void resized(int width, int height) override;

  // The last code read ("" for none yet).
  const std::string& lastCode() const { return lastCode_; }

 protected:
  void viewDidLoad() override;
  void viewWillDisappear() override;

 private:
  void codeFound(const std::string& text);
  void stopCamera();

  Nembra& application_;
  const CameraFeedOptions cameraOptions_;
  CameraScreenFeed camera_;
  std::shared_ptr<QrFrameScanner> scanner_;
  std::string lastCode_;
  bool closing_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
