// The image viewer's entry into the Nembra object: installViewerScreens() makes
// Nembra::showImage* present ImageViewerScreen.
//
// Threading: install at start-up; presenting runs on the main queue.
#pragma once

#include "api/nembra_screens.h"
#include "nembra/screen_host.h"  // installViewerScreens

namespace nembra {

class ViewerScreens final : public NembraScreens {
 public:
  void showImageFromUris(Nembra& application, ScreenPresenter& presenter,
                         const std::vector<std::string>& uris) override;
};

}  // namespace nembra
