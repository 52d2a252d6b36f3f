// The media picker's and the video editor's entry into the Nembra object: the playback module
// installs itself here (installPickerScreens()) and the façade's trimVideo and startFileSelector
// present its screens, without the api module depending on it.
//
// Threading: install() once at start-up; the rest on the main queue.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nembra {

class Nembra;
class ScreenPresenter;

// What the file selector offers, from the file selector configuration.
struct MediaPickerRequest {
  // "video", "audio", "image", in that order, as the configuration's media types ask.
  std::vector<std::string> mediaTypes;
  // How many files may be picked at once; 0: no limit.
  int maxCount = 1;
  // Seconds; 0: no limit.
  int64_t minDuration = 0;
  int64_t maxDuration = 0;
};

class PickerScreens {
 public:
  virtual ~PickerScreens() = default;

  // A modal alert with one button over the topmost screen; gone once answered.
  virtual void presentAlert(Nembra& application, ScreenPresenter& presenter,
                            const std::string& title, const std::string& button) = 0;
  // The trimming editor over the local video at |path|; its cut is uploaded as a video.
  virtual void presentVideoEditor(Nembra& application, ScreenPresenter& presenter,
                                  const std::string& path) = 0;
  // The media picker; what is picked is uploaded, a cancel told to the file selector delegate.
  virtual void presentMediaPicker(Nembra& application, ScreenPresenter& presenter,
                                  const MediaPickerRequest& request) = 0;

  static void install(std::shared_ptr<PickerScreens> screens);
  // Null until the module installs itself.
  static std::shared_ptr<PickerScreens> installed();

  // The media types |mediaType| (a bit union of the media type codes) names. IMAGE (5) shares
  // its low bit with VIDEO (1), so a type counts when all of its bits are set.
  static std::vector<std::string> mediaTypeNames(int32_t mediaType);
};

}  // namespace nembra
