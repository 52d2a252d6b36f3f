#include "recorder/capture_aid_module.h"

#include "api/capture_aid_screens.h"
#include "nembra/application.h"
#include "platform/ui/screen_presenter.h"
#include "recorder/image_recorder_screen.h"
#include "recorder/qr_scanner_screen.h"

namespace nembra {
namespace {

class CaptureAidScreensModule final : public CaptureAidScreens {
 public:
  explicit CaptureAidScreensModule(CaptureAidScreenOptions options)
      : options_(std::move(options)) {}

  void startImageRecorder(Nembra& application, ScreenPresenter& presenter) override {
    presenter.present(
        std::make_shared<ImageRecorderScreen>(application, options_.camera, options_.captureAfter));
  }
  void startQrScanner(Nembra& application, ScreenPresenter& presenter) override {
    presenter.present(std::make_shared<QrScannerScreen>(application, options_.camera));
  }

 private:
  const CaptureAidScreenOptions options_;
};

}  // namespace

void installCaptureAidScreens(CaptureAidScreenOptions options) {
  CaptureAidScreens::install(std::make_shared<CaptureAidScreensModule>(std::move(options)));
}

void installCaptureAidScreens(const std::string& camera) {
  CaptureAidScreenOptions options;
  options.camera.camera = camera;
  installCaptureAidScreens(std::move(options));
}

}  // namespace nembra
