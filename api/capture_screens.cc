// The Nembra object's capture operations: they reach the screens only through the installed
// CaptureScreens and the host's presenter.
#include "api/capture_screens.h"

#include <mutex>

#include "nembra/application.h"

namespace nembra {
namespace {

std::mutex installMutex;
std::shared_ptr<CaptureScreens> installedScreens;  // guarded by installMutex

}  // namespace

void CaptureScreens::install(std::shared_ptr<CaptureScreens> screens) {
  std::lock_guard lock(installMutex);
  installedScreens = std::move(screens);
}

std::shared_ptr<CaptureScreens> CaptureScreens::installed() {
  std::lock_guard lock(installMutex);
  return installedScreens;
}

void Nembra::startAudioRecorder() {
  auto screens = CaptureScreens::installed();
  auto presenter = screenPresenter_.lock();
  if (!screens || !presenter) {
    logError(!screens ? "cannot record audio: the capture screens are not installed"
                      : "cannot record audio: no UI adapter is set");
    return;
  }
  screens->startAudioRecorder(*this, *presenter);
}

}  // namespace nembra
