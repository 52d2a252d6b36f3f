// The recorder's cover selector offered to the other modules: installCoverScreens() makes
// CoverScreens present CoverSelectorController with a callback in place of a recorder.
//
// Threading: install at start-up; presenting runs on the main queue.
#pragma once

#include "api/cover_screens.h"

namespace nembra {

class RecorderCoverScreens final : public CoverScreens {
 public:
  void presentCoverSelector(Nembra& application, ScreenPresenter& presenter,
                            const std::string& path, Chosen chosen) override;
};

void installCoverScreens();

}  // namespace nembra
