#include "recorder/recorder_screens.h"

#include "nembra/application.h"
#include "platform/ui/screen_presenter.h"
#include "recorder/nembra_recorder.h"
#include "recorder/recorder_cover_screens.h"

namespace nembra {

void RecorderModuleScreens::presentRecorder(Nembra& application, ScreenPresenter& presenter,
                                            const std::string& videoToken) {
  RecorderEnvironment environment = RecorderEnvironment::platform(application);
  if (customise_) customise_(environment);
  auto recorder = std::make_shared<NembraRecorder>(application, std::move(environment), videoToken);
  recorder->setVideoGravity("aspect-fill");
  if (created_) created_(recorder);
  presenter.present(recorder);
}

void installRecorderScreens() {
  RecorderScreens::install(std::make_shared<RecorderModuleScreens>());
  installCoverScreens();
}

}  // namespace nembra
