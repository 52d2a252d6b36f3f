// The camera recorder's entry into the Nembra object. The recorder module installs itself here
// (installRecorderScreens() in recorder/), so that Nembra::record presents it while the api
// module never depends on the recorder.
//
// Threading: install() once at start-up; the rest on the main queue.
#pragma once

#include <memory>
#include <string>

namespace nembra {

class Nembra;
class ScreenPresenter;

class RecorderScreens {
 public:
  virtual ~RecorderScreens() = default;

  // Presents a camera recorder over |presenter|'s topmost screen; with a |videoToken| it
  // re-records that video.
  virtual void presentRecorder(Nembra& application, ScreenPresenter& presenter,
                               const std::string& videoToken) = 0;

  static void install(std::shared_ptr<RecorderScreens> screens);
  // Null until a module installs itself.
  static std::shared_ptr<RecorderScreens> installed();
};

}  // namespace nembra
