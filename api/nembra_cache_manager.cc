#include "nembra/nembra_cache_manager.h"

#include <algorithm>
#include <filesystem>
#include <vector>

#include "api/media_token.h"
#include "nembra/application.h"
#include "nembra/cache_config.h"
#include "nembra/media_type.h"
#include "platform/files/file_system.h"

namespace nembra {

namespace {

struct TypeNames {
  const char* directory;
  const char* extension;
};

TypeNames namesFor(int type) {
  switch (type) {
    case VIDEO:
      return {"video", "mp4"};
    case AUDIO:
      return {"audio", "aac"};
    case IMAGE:
      return {"image", "jpg"};
    default:
      return {"", ""};
  }
}

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Joins as a path component is appended: no doubled slash, an empty part adds nothing.
std::string joinPath(const std::string& directory, const std::string& name) {
  if (directory.empty()) return name;
  if (name.empty()) return directory;
  return endsWith(directory, "/") ? directory + name : directory + "/" + name;
}

}  // namespace

NembraCacheManager::NembraCacheManager(Nembra& application, bool isPlayer)
    : NembraCacheManager(application, isPlayer, FileSystem::shared()) {}

NembraCacheManager::NembraCacheManager(Nembra& application, bool isPlayer, FileSystem& fs)
    : application_(application), isPlayer_(isPlayer), fs_(fs) {}

std::string NembraCacheManager::getCacheDirectoryWithType(int type) {
  TypeNames names = namesFor(type);
  if (!*names.directory) return "";
  return getCacheDirectory(names.directory);
}

std::string NembraCacheManager::getCacheDirectory(const std::string& name) {
  const std::optional<std::string> root = application_.cacheConfig().cacheRoot();
  if (root) {
    if (endsWith(*root, "/")) return *root;
    return joinPath(fs_.documentsDirectory(), *root);
  }
  std::string directory = joinPath(fs_.documentsDirectory(), name + "-cache");
  if (auto error = FileSystem::createDirectories(directory)) {
    application_.log("cannot create the cache directory: " + error->message);
  }
  return directory;
}

std::string NembraCacheManager::getCacheFileNameWithType(int type, const std::string& token) {
  TypeNames names = namesFor(type);
  if (!*names.extension || !MediaToken::isSafe(token)) return "";
  return token + "." + names.extension;
}

std::string NembraCacheManager::getCacheFilePathWithType(int type, const std::string& token) {
  std::string name = getCacheFileNameWithType(type, token);
  if (name.empty()) return "";
  std::string directory = getCacheDirectoryWithType(type);
  if (directory.empty()) return "";
  return joinPath(directory, name);
}

void NembraCacheManager::trimCacheWithType(int type) {
  TypeNames names = namesFor(type);
  if (!*names.extension) return;
  trimCache(names.extension, getCacheDirectoryWithType(type));
}

void NembraCacheManager::trimCache(const std::string& extension, const std::string& directory) {
  struct Entry {
    std::string path;
    std::chrono::system_clock::time_point created;
    uint64_t size;
  };
  const std::string suffix = "." + extension;
  std::vector<Entry> entries;
  std::error_code ec;
  std::filesystem::directory_iterator it(directory, ec);
  if (ec) return;
  const auto epoch = std::chrono::system_clock::time_point{};
  for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
    // The whole path ends as its name does: no need to split the name off. A directory is never
    // a cached file (its type comes with the listing, at no cost).
    const std::string& path = it->path().native();
    std::error_code typeError;
    if (!endsWith(path, suffix) || it->is_directory(typeError)) continue;
    // One look at each file: a directory of many files is trimmed in well under a second.
    auto facts = FileSystem::sizeAndCreationDate(path);
    entries.push_back({path, facts ? facts->created : epoch, facts ? facts->size : 0});
  }
  if (ec) return;
  std::stable_sort(entries.begin(), entries.end(),
                   [](const Entry& a, const Entry& b) { return a.created > b.created; });

  const int64_t limit = application_.cacheConfig().maxCacheSize();
  application_.log("maxCacheSize: " + std::to_string(limit));
  // A negative limit keeps nothing.
  uint64_t total = 0;
  bool crossed = limit < 0;
  for (const Entry& entry : entries) {
    // Once the limit is crossed every older file goes, whatever its size.
    if (!crossed) {
      total += entry.size;
      crossed = total > static_cast<uint64_t>(limit);
    }
    // Known to be no directory: one unlink, where removeItem would look at the file twice first.
    if (crossed) std::filesystem::remove(entry.path, ec);
  }
}

bool NembraCacheManager::fileExists(const std::string& path) {
  return !path.empty() && FileSystem::fileExists(path);
}

void NembraCacheManager::removeFile(const std::string& path) {
  if (path.empty()) return;
  std::error_code ec;
  if (std::filesystem::is_directory(std::filesystem::symlink_status(path, ec))) return;
  FileSystem::removeItem(path);
}

}  // namespace nembra
