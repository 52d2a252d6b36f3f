// Limits and place of the media caches: how large each type's cache directory may grow, and
// where the directories live (see NembraCacheManager::getCacheDirectory).
//
// Threading: a plain value; read and replace it from the main queue.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace nembra {

class CacheConfig {
 public:
  static constexpr int64_t kDefaultMaxCacheSize = 1073741824;  // 1 GiB

  int64_t getMaxCacheSize() const { return maxCacheSize_; }
  int64_t maxCacheSize() const { return maxCacheSize_; }
  void setMaxCacheSize(int64_t bytes) { maxCacheSize_ = bytes; }

  // Absent: each type gets "<type>-cache" in the documents directory. Present (the default ""
  // included): one directory for every type, under the documents directory unless it ends in
  // "/".
  const std::optional<std::string>& getCacheRoot() const { return cacheRoot_; }
  const std::optional<std::string>& cacheRoot() const { return cacheRoot_; }
  void setCacheRoot(std::optional<std::string> root) { cacheRoot_ = std::move(root); }

  // Both print the size through a 32-bit conversion, so sizes of 2 GiB and more print wrapped:
  // kept, the texts are compared by the tools that collect configuration reports.
  std::string toString() const;
  std::string stringValueConfig() const;

 private:
  int64_t maxCacheSize_ = kDefaultMaxCacheSize;
  std::optional<std::string> cacheRoot_ = std::string();
};

}  // namespace nembra
