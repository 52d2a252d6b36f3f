// An in-memory cache of pictures keyed by video token or local file path. It holds at most
// |maxEntries| pictures and |maxBytes| bytes of them; past either limit the least recently used
// go first, so a long session of thumbnails never grows without bound.
//
// Threading: every member is safe from any thread.
#pragma once

#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

#include "nembra/still_image.h"

namespace nembra {

class ThumbnailCache {
 public:
  static constexpr size_t kDefaultMaxEntries = 200;
  static constexpr size_t kDefaultMaxBytes = 64u << 20;

  explicit ThumbnailCache(size_t maxEntries = kDefaultMaxEntries,
                          size_t maxBytes = kDefaultMaxBytes);

  // The picture under |key|, now the most recently used; nothing when absent.
  StillImagePtr objectForKey(const std::string& key);
  // Stores |image| under |key|, replacing what was there. A picture larger than the whole
  // byte limit is not kept.
  void setObject(StillImagePtr image, const std::string& key);
  void removeObjectForKey(const std::string& key);
  void removeAllObjects();

  size_t count() const;
  size_t totalBytes() const;

 private:
  struct Slot {
    StillImagePtr image;
    std::list<std::string>::iterator order;
  };
  void evictLocked();

  const size_t maxEntries_;
  const size_t maxBytes_;
  mutable std::mutex mutex_;
  std::list<std::string> order_;                   // most recent first; guarded by mutex_
  std::unordered_map<std::string, Slot> entries_;  // guarded by mutex_
  size_t bytes_ = 0;                               // guarded by mutex_
};

}  // namespace nembra
