#include "viewer/viewer_screens.h"

#include "nembra/application.h"
#include "platform/ui/screen_presenter.h"
#include "viewer/image_viewer_screen.h"

namespace nembra {

void ViewerScreens::showImageFromUris(Nembra& application, ScreenPresenter& presenter,
                                      const std::vector<std::string>& uris) {
  presenter.present(std::make_shared<ImageViewerScreen>(uris, application.imageLoader(),
                                                        application.mainQueue()));
}

void installViewerScreens() { NembraScreens::install(std::make_shared<ViewerScreens>()); }

}  // namespace nembra
