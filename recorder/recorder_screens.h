// The recorder's entry into the Nembra object: installRecorderScreens() makes Nembra::record
// present NembraRecorder with the platform's capture, writer and uploads.
//
// Threading: install at start-up; presenting runs on the main queue.
#pragma once

#include <functional>

#include "api/recorder_screens.h"
#include "recorder/recorder_environment.h"

namespace nembra {

class NembraRecorder;

class RecorderModuleScreens final : public RecorderScreens {
 public:
  // |customise| (optional) adjusts each recorder's environment before it is made (the command
  // line names the devices there); |created| hears of each recorder presented.
  explicit RecorderModuleScreens(
      std::function<void(RecorderEnvironment&)> customise = {},
      std::function<void(const std::shared_ptr<NembraRecorder>&)> created = {})
      : customise_(std::move(customise)), created_(std::move(created)) {}

  void presentRecorder(Nembra& application, ScreenPresenter& presenter,
                       const std::string& videoToken) override;

 private:
  std::function<void(RecorderEnvironment&)> customise_;
  std::function<void(const std::shared_ptr<NembraRecorder>&)> created_;
};

// Installs RecorderModuleScreens as the Nembra objects' recorder.
void installRecorderScreens();

}  // namespace nembra
