// The cover selector's entry into the Nembra object for screens outside the recorder (the video
// library's cover step): the recorder module installs it (installCoverScreens()), so the other
// modules reach it without depending on the recorder.
//
// Threading: install() once at start-up; the rest on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "nembra/still_image.h"

namespace nembra {

class Nembra;
class ScreenPresenter;

class CoverScreens {
 public:
  // The path the covers were taken from and the picture picked; null when the user asked for
  // the default cover.
  using Chosen = std::function<void(const std::string& path, StillImagePtr image)>;

  virtual ~CoverScreens() = default;

  // Presents the cover selector on the video at |path|; |chosen| runs once it is gone.
  virtual void presentCoverSelector(Nembra& application, ScreenPresenter& presenter,
                                    const std::string& path, Chosen chosen) = 0;

  static void install(std::shared_ptr<CoverScreens> screens);
  // Null until a module installs itself.
  static std::shared_ptr<CoverScreens> installed();
};

}  // namespace nembra
