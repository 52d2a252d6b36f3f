#include "playback/picker_module.h"

#include <algorithm>
#include <filesystem>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/ui/screen_presenter.h"
#include "playback/alert_screen.h"
#include "playback/media_picker_screen.h"
#include "playback/nembra_video_library.h"

namespace nembra {

void PickerModule::presentAlert(Nembra&, ScreenPresenter& presenter, const std::string& title,
                                const std::string& button) {
  presenter.present(std::make_shared<AlertScreen>(title, button));
}

void PickerModule::presentVideoEditor(Nembra& application, ScreenPresenter& presenter,
                                      const std::string& path) {
  VideoEditorScreen::Options editor;
  editor.trimmer = options_.trimmer;
  editor.engineFactory = options_.engineFactory;
  editor.withSound = options_.withSound;
  editor.dismissOnFailure = options_.dismissEditorOnFailure;
  editor.start = options_.editorStart;
  editor.end = options_.editorEnd;
  editor.finished = options_.onTrimmed;
  presenter.present(std::make_shared<VideoEditorScreen>(application, path, std::move(editor)));
}

void PickerModule::presentMediaPicker(Nembra& application, ScreenPresenter& presenter,
                                      const MediaPickerRequest& request) {
  const std::string directory = options_.pickerDirectory.empty()
                                    ? std::filesystem::current_path().string()
                                    : options_.pickerDirectory;
  std::weak_ptr<PickerModule> weak = weak_from_this();
  Nembra* app = &application;
  presenter.present(std::make_shared<MediaPickerScreen>(
      directory, request, [weak, app](const std::vector<std::string>& paths, bool cancelled) {
        if (auto self = weak.lock()) self->picked(*app, paths, cancelled);
      }));
}

void PickerModule::picked(Nembra& application, const std::vector<std::string>& paths,
                          bool cancelled) {
  if (cancelled) {
    // The video library's cancel tells the uploading and the file selector delegates.
    NembraVideoLibrary::initWithNembraApplication(application)->imagePickerControllerDidCancel();
  }
  for (const std::string& path : paths) {
    if (MediaPickerScreen::kindOf(path) != "video") {
      application.uploadFromPath(path, application.uploadingConfig().extraArgs());
      continue;
    }
    auto library = NembraVideoLibrary::initWithNembraApplication(application);
    std::weak_ptr<PickerModule> weak = weak_from_this();
    NembraVideoLibrary* raw = library.get();
    MainQueue* main = &application.mainQueue();
    library->setFinished([weak, raw, main, path, onPicked = options_.onPickedVideo](
                             const std::optional<Json>& json, const OptionalError& error) {
      if (onPicked) onPicked(path, json, error);
      auto self = weak.lock();
      if (!self) return;
      // Let go of the library once its own call has returned.
      auto& libraries = self->libraries_;
      auto it = std::find_if(libraries.begin(), libraries.end(),
                             [raw](const auto& kept) { return kept.get() == raw; });
      if (it != libraries.end()) {
        main->async([done = std::move(*it)] {});
        libraries.erase(it);
      }
    });
    libraries_.push_back(library);
    library->imagePickerControllerDidFinishPickingMediaWithInfo(path);
  }
  if (options_.onPickerEnded) options_.onPickerEnded(paths, cancelled);
}

void installPickerScreens(PickerModuleOptions options) {
  PickerScreens::install(std::make_shared<PickerModule>(std::move(options)));
}

}  // namespace nembra
