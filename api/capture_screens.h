// The capture screens (the audio recorder) come from the capture module, which installs itself
// here so that the api module never depends on it. A host that wants them links nembra_capture,
// calls installCaptureScreens() and gives the Nembra object a ScreenPresenter.
//
// Threading: install() once at start-up; the rest on the main queue.
#pragma once

#include <memory>

namespace nembra {

class Nembra;
class ScreenPresenter;

class CaptureScreens {
 public:
  virtual ~CaptureScreens() = default;

  // Presents the audio recorder over |presenter|'s topmost screen.
  virtual void startAudioRecorder(Nembra& application, ScreenPresenter& presenter) = 0;

  static void install(std::shared_ptr<CaptureScreens> screens);
  // Null until the module installs itself.
  static std::shared_ptr<CaptureScreens> installed();
};

}  // namespace nembra
