// The main application's side of the screen-recording hand-over: movies found in the
// application group's shared directory are uploaded as videos and deleted once confirmed.
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_videos.h"
#include "nembra/reply_status.h"
#include "platform/files/directory_watcher.h"

namespace nembra {

namespace {

uint32_t bigEndian32(const unsigned char* b) {
  return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
}

// Whether |path| is a whole QuickTime/MPEG-4 movie: its top-level boxes tile the file exactly
// and one of them is the index. A movie still being written or copied fails one or the other.
bool isWholeMovie(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  if (!in || ec) return false;
  uint64_t offset = 0;
  bool index = false;
  while (offset < size) {
    unsigned char header[16];
    in.seekg(static_cast<std::streamoff>(offset));
    if (!in.read(reinterpret_cast<char*>(header), 8)) return false;
    uint64_t boxSize = bigEndian32(header);
    if (boxSize == 1) {
      if (!in.read(reinterpret_cast<char*>(header + 8), 8)) return false;
      boxSize = (uint64_t{bigEndian32(header + 8)} << 32) | bigEndian32(header + 12);
    } else if (boxSize == 0) {
      return false;  // "to the end of the file": the writer has not closed it yet
    }
    if (boxSize < 8 || boxSize > size - offset) return false;
    if (std::string(reinterpret_cast<char*>(header) + 4, 4) == "moov") index = true;
    offset += boxSize;
  }
  return index && offset == size;
}

}  // namespace

bool NembraVideos::setupFileWatcher() {
  if (appGroup_.empty()) {
    application_.log("screen recordings: no application group to watch");
    return false;
  }
  const auto directory = Utils::getSharedScreenRecordingDirectoryForAppGroup(appGroup_);
  if (!directory) {
    application_.logError("screen recordings: no shared directory for group " + appGroup_);
    return false;
  }
  OptionalError error;
  auto watcher = DirectoryWatcher::start(
      *directory, [this](const std::string&) { presentedItemDidChange(); }, error);
  if (!watcher) {
    application_.logError("screen recordings: " + error->message);
    return false;
  }
  {
    std::lock_guard lock(screenRecordingsMutex_);
    screenRecordingsWatcher_ = std::move(watcher);
  }
  // What arrived before the watcher started.
  processNewScreenRecordings();
  return true;
}

void NembraVideos::presentedItemDidChange() { processNewScreenRecordings(); }

size_t NembraVideos::processNewScreenRecordings() {
  if (appGroup_.empty()) return 0;
  const auto directory = Utils::getSharedScreenRecordingDirectoryForAppGroup(appGroup_);
  if (!directory) return 0;
  std::vector<std::string> fresh;
  {
    std::lock_guard lock(screenRecordingsMutex_);
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(*directory, ec)) {
      const std::string path = entry.path().string();
      const std::string name = entry.path().filename().string();
      if (!entry.is_regular_file(ec) || name.empty() || name[0] == '.') continue;
      if (screenRecordingsInFlight_.count(path) || !isWholeMovie(path)) continue;
      screenRecordingsInFlight_.insert(path);
      fresh.push_back(path);
    }
  }
  for (const std::string& path : fresh) {
    application_.log("screen recording found: " + path);
    application_.mainQueue().async([this, alive = std::weak_ptr<bool>(alive_), path] {
      if (alive.expired()) return;
      auto token = std::make_shared<std::string>();
      auto ended = [this, alive, path, token](const OptionalError& error) {
        if (alive.expired()) return;
        // The handler deletes a confirmed file; one that failed stays for a later look.
        if (!error) Utils::removeFileWithPath(path);
        {
          std::lock_guard lock(screenRecordingsMutex_);
          screenRecordingsInFlight_.erase(path);
        }
        if (onScreenRecordingUploaded) onScreenRecordingUploaded(path, *token, error);
      };
      application_.uploadingHandler().uploadWithType(
          VIDEO, path, application_.uploadingConfig().extraArgs(),
          [ended](const std::optional<Json>& json, const HttpResponse& response,
                  const OptionalError& error) {
            OptionalError failure = error;
            if (!failure) failure = ReplyStatus::check("the upload URL request", response, json);
            if (failure) ended(failure);
          },
          nullptr,
          [ended, token](const std::optional<Json>& json, const HttpResponse& response,
                         const OptionalError& error) {
            OptionalError failure = error;
            if (!failure) failure = ReplyStatus::check("the confirm request", response, json);
            if (json && json->is_object()) {
              for (const char* key : {"token", "video_token", "media_token"}) {
                if (json->contains(key) && (*json)[key].is_string()) {
                  *token = (*json)[key].get<std::string>();
                  break;
                }
              }
            }
            ended(failure);
          });
    });
  }
  return fresh.size();
}

}  // namespace nembra
