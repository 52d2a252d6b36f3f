// The Nembra object's still-image recorder and QR scanner, reached only through the installed
// CaptureAidScreens and the host's presenter.
#include "api/capture_aid_screens.h"

#include <mutex>

#include "nembra/application.h"

namespace nembra {
namespace {

std::mutex installMutex;
std::shared_ptr<CaptureAidScreens> installedScreens;  // guarded by installMutex

}  // namespace

void CaptureAidScreens::install(std::shared_ptr<CaptureAidScreens> screens) {
  std::lock_guard lock(installMutex);
  installedScreens = std::move(screens);
}

std::shared_ptr<CaptureAidScreens> CaptureAidScreens::installed() {
  std::lock_guard lock(installMutex);
  return installedScreens;
}

void Nembra::startImageRecorder() {
  auto screens = CaptureAidScreens::installed();
  auto presenter = screenPresenter();
  if (!screens || !presenter) {
    logError(!screens ? "cannot start the image recorder: no camera screen module is installed"
                      : "cannot start the image recorder: no UI adapter is set");
    return;
  }
  screens->startImageRecorder(*this, *presenter);
}

void Nembra::startQrScanner() {
  auto screens = CaptureAidScreens::installed();
  auto presenter = screenPresenter();
  if (!screens || !presenter) {
    logError(!screens ? "cannot start the QR scanner: no camera screen module is installed"
                      : "cannot start the QR scanner: no UI adapter is set");
    return;
  }
  screens->startQrScanner(*this, *presenter);
}

}  // namespace nembra
