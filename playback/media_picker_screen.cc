#include "playback/media_picker_screen.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "platform/media/media_probe.h"

namespace nembra {

namespace fs = std::filesystem;

MediaPickerScreen::MediaPickerScreen(std::string directory, MediaPickerRequest request,
                                     Picked picked)
    : directory_(std::move(directory)), request_(std::move(request)), picked_(std::move(picked)) {
  std::error_code ec;
  for (fs::directory_iterator it(directory_, ec), endIt; !ec && it != endIt; it.increment(ec)) {
    if (it->is_regular_file(ec) && admits(it->path().string())) {
      files_.push_back(it->path().string());
    }
  }
  std::sort(files_.begin(), files_.end());
}

std::string MediaPickerScreen::kindOf(const std::string& path) {
  std::string extension = fs::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const char* video : {".mp4", ".mov", ".m4v", ".avi", ".mkv", ".webm"}) {
    if (extension == video) return "video";
  }
  for (const char* audio : {".mp3", ".wav", ".aac", ".m4a", ".ogg", ".flac"}) {
    if (extension == audio) return "audio";
  }
  for (const char* image : {".png", ".jpg", ".jpeg", ".bmp", ".gif", ".webp"}) {
    if (extension == image) return "image";
  }
  return "";
}

bool MediaPickerScreen::admits(const std::string& path) const {
  const std::string kind = kindOf(path);
  if (kind.empty() || std::find(request_.mediaTypes.begin(), request_.mediaTypes.end(), kind) ==
                          request_.mediaTypes.end()) {
    return false;
  }
  if (kind == "image" || (request_.minDuration <= 0 && request_.maxDuration <= 0)) return true;
  MediaProbeResult result;
  if (makeMediaProbe()->probe(path, result)) return false;
  if (request_.minDuration > 0 && result.duration < static_cast<double>(request_.minDuration)) {
    return false;
  }
  return request_.maxDuration <= 0 || result.duration <= static_cast<double>(request_.maxDuration);
}

void MediaPickerScreen::viewDidLoad() {
  view().setTitle("Choose media in " + directory_);
  // Enter picks the highlighted row in the terminal.
  view().bindKey("d", "done");
  view().bindKey("escape", "cancel");
  view().bindKey("q", "cancel");
  refresh();
}

void MediaPickerScreen::refresh() {
  if (!presented()) return;
  ListState list;
  for (size_t i = 0; i < files_.size(); ++i) {
    const bool isChosen =
        std::find(chosen_.begin(), chosen_.end(), static_cast<int>(i)) != chosen_.end();
    list.rows.push_back((isChosen ? "[x] " : "") + fs::path(files_[i]).filename().string());
  }
  list.selected = chosen_.empty() ? -1 : chosen_.back();
  view().setList("files", list);
  view().setLabel("selected",
                  files_.empty() ? "No media here" : std::to_string(chosen_.size()) + " selected");
  view().setButton("done", {"check-white", "Done", !chosen_.empty(), request_.maxCount == 1});
  view().setButton("cancel", {"close-white", "Cancel", true, false});
}

void MediaPickerScreen::rowPicked(const std::string& list, int row) {
  if (list != "files" || row < 0 || static_cast<size_t>(row) >= files_.size()) return;
  if (request_.maxCount == 1) {
    chosen_ = {row};
    end(false);
    return;
  }
  auto at = std::find(chosen_.begin(), chosen_.end(), row);
  if (at != chosen_.end()) {
    chosen_.erase(at);
  } else if (request_.maxCount <= 0 || static_cast<int>(chosen_.size()) < request_.maxCount) {
    chosen_.push_back(row);
  }
  refresh();
}

void MediaPickerScreen::buttonPressed(const std::string& name) {
  if (name == "done" && !chosen_.empty()) {
    end(false);
  } else if (name == "cancel") {
    end(true);
  }
}

void MediaPickerScreen::end(bool cancelled) {
  std::vector<std::string> paths;
  if (!cancelled) {
    for (int row : chosen_) paths.push_back(files_[static_cast<size_t>(row)]);
  }
  dismiss([picked = picked_, paths, cancelled] {
    if (picked) picked(paths, cancelled);
  });
}

}  // namespace nembra
