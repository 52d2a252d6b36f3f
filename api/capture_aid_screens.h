// The camera screens the Nembra object starts that are not the recorder itself: the still-image
// recorder (startImageRecorder) and the QR scanner (startQrScanner). A screen module installs
// them here (the recorder module: installCaptureAidScreens()); the api module never depends on
// it.
//
// Threading: install() once at start-up; the rest on the main queue.
#pragma once

#include <memory>

namespace nembra {

class Nembra;
class ScreenPresenter;

class CaptureAidScreens {
 public:
  virtual ~CaptureAidScreens() = default;

  // Presents the still-image recorder over |presenter|'s topmost screen.
  virtual void startImageRecorder(Nembra& application, ScreenPresenter& presenter) = 0;
  // Presents the QR scanner, which reads qrScannerConfig and tells the QR delegate.
  virtual void startQrScanner(Nembra& application, ScreenPresenter& presenter) = 0;

  static void install(std::shared_ptr<CaptureAidScreens> screens);
  // Null until a module installs itself.
  static std::shared_ptr<CaptureAidScreens> installed();
};

}  // namespace nembra
