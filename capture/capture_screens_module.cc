#include "capture/capture_screens_module.h"

#include "capture/nembra_audio_recorder.h"
#include "platform/ui/screen_presenter.h"

namespace nembra {

void CaptureScreensModule::startAudioRecorder(Nembra& application, ScreenPresenter& presenter) {
  auto recorder = std::make_shared<NembraAudioRecorder>(application);
  if (configureAudioRecorder) configureAudioRecorder(*recorder);
  presenter.present(std::move(recorder));
}

std::shared_ptr<CaptureScreensModule> installCaptureScreens() {
  auto module = std::make_shared<CaptureScreensModule>();
  CaptureScreens::install(module);
  return module;
}

}  // namespace nembra
