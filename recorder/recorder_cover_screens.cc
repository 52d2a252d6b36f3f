#include "recorder/recorder_cover_screens.h"

#include "nembra/application.h"
#include "platform/ui/screen_presenter.h"
#include "recorder/cover_selector_controller.h"

namespace nembra {

void RecorderCoverScreens::presentCoverSelector(Nembra& application, ScreenPresenter& presenter,
                                                const std::string& path, Chosen chosen) {
  auto selector = std::make_shared<CoverSelectorController>(path, application.mainQueue());
  selector->setChosen(std::move(chosen));
  presenter.present(selector);
}

void installCoverScreens() { CoverScreens::install(std::make_shared<RecorderCoverScreens>()); }

}  // namespace nembra
