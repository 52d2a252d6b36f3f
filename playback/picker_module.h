// The playback module's media picker and video editor, installed into the Nembra object by
// installPickerScreens(): the façade's trimVideo opens VideoEditorScreen, startFileSelector
// MediaPickerScreen, whose picked videos go through NembraVideoLibrary (low-quality export,
// cover, new video) and other media through the façade's uploadFromPath.
//
// Threading: install at start-up; presenting runs on the main queue, and so do the callbacks.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api/picker_screens.h"
#include "nembra/error.h"
#include "nembra/json.h"
#include "playback/video_editor_screen.h"

namespace nembra {

class NembraVideoLibrary;

struct PickerModuleOptions {
  // Where the media picker lists files; "": the current directory.
  std::string pickerDirectory;
  // False: the editor opens no sound device.
  bool withSound = true;
  // The editor ends at once when its video cannot be read or cut (see VideoEditorScreen).
  bool dismissEditorOnFailure = false;
  // Where the editor's handles start; unset: the whole video.
  std::optional<double> editorStart;
  std::optional<double> editorEnd;
  // Given to each editor; empty members get the plug-in's.
  std::shared_ptr<MediaTrimmer> trimmer;
  VideoEditorScreen::EngineFactory engineFactory;
  // The editor's cut was uploaded (the confirm's answer), or why not.
  std::function<void(const std::optional<Json>& json, const OptionalError& error)> onTrimmed;
  // A video picked in the media picker went through the video library: the service's answer.
  std::function<void(const std::string& path, const std::optional<Json>& json,
                     const OptionalError& error)>
      onPickedVideo;
  // The media picker ended: |paths| picked, or the user cancelled.
  std::function<void(const std::vector<std::string>& paths, bool cancelled)> onPickerEnded;
};

class PickerModule final : public PickerScreens, public std::enable_shared_from_this<PickerModule> {
 public:
  explicit PickerModule(PickerModuleOptions options) : options_(std::move(options)) {}

  void presentAlert(Nembra& application, ScreenPresenter& presenter, const std::string& title,
                    const std::string& button) override;
  void presentVideoEditor(Nembra& application, ScreenPresenter& presenter,
                          const std::string& path) override;
  void presentMediaPicker(Nembra& application, ScreenPresenter& presenter,
                          const MediaPickerRequest& request) override;

 private:
  void picked(Nembra& application, const std::vector<std::string>& paths, bool cancelled);

  const PickerModuleOptions options_;
  // The libraries still exporting or uploading a picked video.
  std::vector<std::shared_ptr<NembraVideoLibrary>> libraries_;
};

// Installs PickerModule as the Nembra objects' picker and editor.
void installPickerScreens(PickerModuleOptions options = {});

}  // namespace nembra
