// Decoded pictures kept in memory, bounded by their bytes: the least recently used go first.
// A picture larger than the whole budget is not kept.
//
// Threading: any thread.
#pragma once

#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/media/picture.h"

namespace nembra {

class ImageMemoryCache {
 public:
  explicit ImageMemoryCache(size_t maxBytes) : maxBytes_(maxBytes) {}

  void put(const std::string& key, SharedPicture picture);
  // Null on a miss; a hit becomes the most recently used.
  SharedPicture get(const std::string& key);
  // The most recently used entry whose key starts with |prefix|, null when none.
  SharedPicture findByPrefix(const std::string& prefix);

  size_t bytes() const;
  size_t count() const;
  size_t maxBytes() const { return maxBytes_; }

 private:
  struct Entry {
    std::string key;
    SharedPicture picture;
    size_t bytes = 0;
  };

  const size_t maxBytes_;
  mutable std::mutex mutex_;
  std::list<Entry> entries_;  // most recent first; guarded by mutex_
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;  // guarded by mutex_
  size_t bytes_ = 0;                                                   // guarded by mutex_
};

}  // namespace nembra
