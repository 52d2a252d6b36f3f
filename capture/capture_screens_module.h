// The capture module's entry into the Nembra object: installCaptureScreens() makes
// Nembra::startAudioRecorder present NembraAudioRecorder.
//
// Threading: install at start-up; presenting runs on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "api/capture_screens.h"

namespace nembra {

class NembraAudioRecorder;

class CaptureScreensModule final : public CaptureScreens {
 public:
  void startAudioRecorder(Nembra& application, ScreenPresenter& presenter) override;

  // Runs on each new recorder before it is presented (the CLI picks the microphone there).
  std::function<void(NembraAudioRecorder&)> configureAudioRecorder;
};

// Installs the capture screens; returns the module so the host can configure it.
std::shared_ptr<CaptureScreensModule> installCaptureScreens();

}  // namespace nembra
