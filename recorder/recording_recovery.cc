#include "recorder/recording_recovery.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "platform/files/file_lock.h"
#include "platform/media/media_backend.h"

namespace nembra {

namespace {
constexpr const char* kPartSuffix = ".mp4.part";
}

std::string RecordingRecovery::lockPath(const std::string& path) { return path + ".lock"; }

std::vector<std::string> RecordingRecovery::findInterrupted(const std::string& directory) {
  namespace fs = std::filesystem;
  std::vector<std::pair<fs::file_time_type, std::string>> found;
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory, ec)) {
    const std::string name = entry.path().filename().string();
    const std::string suffix = kPartSuffix;
    if (name.size() <= suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
      continue;
    }
    const std::string path = entry.path().string();
    const std::string finalPath = path.substr(0, path.size() - 5);  // without ".part"
    // A recorder still writing it holds the lock.
    if (!FileLock::tryAcquire(lockPath(finalPath), nullptr)) continue;
    found.emplace_back(entry.last_write_time(ec), finalPath);
  }
  std::sort(found.begin(), found.end());
  std::vector<std::string> paths;
  for (auto& [time, path] : found) paths.push_back(std::move(path));
  return paths;
}

OptionalError RecordingRecovery::finish(const std::string& path) {
  auto lock = FileLock::tryAcquire(lockPath(path), nullptr);
  if (!lock) return Error::file("a recorder is still writing " + path);
  lock->removeFileOnRelease();
  OptionalError error = MediaBackend::shared().finishInterruptedMovie(path);
  // A part file with nothing readable in it is of no use to anyone.
  if (error && error->kind == ErrorKind::Media) std::remove(moviePartPath(path).c_str());
  return error;
}

}  // namespace nembra
