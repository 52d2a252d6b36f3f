// The Nembra object's trimVideo and startFileSelector: they reach the editor and the picker
// only through the installed PickerScreens and the host's presenter.
#include "api/picker_screens.h"

#include <filesystem>
#include <mutex>

#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/media_type.h"

namespace nembra {
namespace {

std::mutex installMutex;
std::shared_ptr<PickerScreens> installedScreens;  // guarded by installMutex

}  // namespace

void PickerScreens::install(std::shared_ptr<PickerScreens> screens) {
  std::lock_guard lock(installMutex);
  installedScreens = std::move(screens);
}

std::shared_ptr<PickerScreens> PickerScreens::installed() {
  std::lock_guard lock(installMutex);
  return installedScreens;
}

std::vector<std::string> PickerScreens::mediaTypeNames(int32_t mediaType) {
  std::vector<std::string> names;
  if ((mediaType & VIDEO) == VIDEO) names.push_back("video");
  if ((mediaType & AUDIO) == AUDIO) names.push_back("audio");
  if ((mediaType & IMAGE) == IMAGE) names.push_back("image");
  return names;
}

void Nembra::trimVideo(const std::string& path) {
  auto screens = PickerScreens::installed();
  auto presenter = screenPresenter_.lock();
  if (!screens || !presenter) {
    logError(std::string("cannot trim a video") +
             (!screens ? ": no picker module is installed" : ": no UI adapter is set"));
    return;
  }
  if (path.find("http://") != std::string::npos || path.find("https://") != std::string::npos) {
    screens->presentAlert(*this, *presenter, "Nembra can trim only local video.", "OK");
    return;
  }
  namespace fs = std::filesystem;
  const std::string local = path.rfind("file://", 0) == 0 ? path.substr(7) : path;
  const std::string target = (fs::path(Utils::getDocumentsDirectory()) / "video.mp4").string();
  std::error_code ec;
  fs::remove(target, ec);
  fs::copy_file(local, target, ec);
  // The editor tells the user when there is nothing it can open.
  if (ec) logError("cannot copy " + local + " to " + target + ": " + ec.message());
  screens->presentVideoEditor(*this, *presenter, target);
}

void Nembra::startFileSelector() {
  auto screens = PickerScreens::installed();
  auto presenter = screenPresenter_.lock();
  if (!screens || !presenter) {
    logError(std::string("cannot start the file selector") +
             (!screens ? ": no picker module is installed" : ": no UI adapter is set"));
    return;
  }
  const FileSelectorConfig& config = fileSelectorConfig();
  MediaPickerRequest request;
  request.mediaTypes = PickerScreens::mediaTypeNames(config.getMediaType());
  request.maxCount = config.getShouldAllowMultipleSelection() ? 0 : 1;
  request.minDuration = config.getMinDuration();
  request.maxDuration = config.getMaxDuration();
  screens->presentMediaPicker(*this, *presenter, request);
}

}  // namespace nembra
