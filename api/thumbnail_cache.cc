#include "nembra/thumbnail_cache.h"

namespace nembra {

ThumbnailCache::ThumbnailCache(size_t maxEntries, size_t maxBytes)
    : maxEntries_(maxEntries), maxBytes_(maxBytes) {}

StillImagePtr ThumbnailCache::objectForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  auto found = entries_.find(key);
  if (found == entries_.end()) return nullptr;
  order_.splice(order_.begin(), order_, found->second.order);
  return found->second.image;
}

void ThumbnailCache::setObject(StillImagePtr image, const std::string& key) {
  std::lock_guard lock(mutex_);
  auto found = entries_.find(key);
  if (found != entries_.end()) {
    bytes_ -= found->second.image->data.size();
    order_.erase(found->second.order);
    entries_.erase(found);
  }
  if (!image || image->data.size() > maxBytes_) return;
  order_.push_front(key);
  bytes_ += image->data.size();
  entries_.emplace(key, Slot{std::move(image), order_.begin()});
  evictLocked();
}

void ThumbnailCache::removeObjectForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  auto found = entries_.find(key);
  if (found == entries_.end()) return;
  bytes_ -= found->second.image->data.size();
  order_.erase(found->second.order);
  entries_.erase(found);
}

void ThumbnailCache::removeAllObjects() {
  std::lock_guard lock(mutex_);
  entries_.clear();
  order_.clear();
  bytes_ = 0;
}

size_t ThumbnailCache::count() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

size_t ThumbnailCache::totalBytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

void ThumbnailCache::evictLocked() {
  while (!order_.empty() && (entries_.size() > maxEntries_ || bytes_ > maxBytes_)) {
    auto found = entries_.find(order_.back());
    bytes_ -= found->second.image->data.size();
    entries_.erase(found);
    order_.pop_back();
  }
}

}  // namespace nembra
