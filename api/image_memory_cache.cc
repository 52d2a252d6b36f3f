#include "api/image_memory_cache.h"

namespace nembra {

void ImageMemoryCache::put(const std::string& key, SharedPicture picture) {
  if (!picture) return;
  const size_t size = picture->byteSize();
  std::lock_guard lock(mutex_);
  if (auto it = index_.find(key); it != index_.end()) {
    bytes_ -= it->second->bytes;
    entries_.erase(it->second);
    index_.erase(it);
  }
  if (size > maxBytes_) return;
  entries_.push_front(Entry{key, std::move(picture), size});
  index_[key] = entries_.begin();
  bytes_ += size;
  while (bytes_ > maxBytes_) {
    const Entry& oldest = entries_.back();
    bytes_ -= oldest.bytes;
    index_.erase(oldest.key);
    entries_.pop_back();
  }
}

SharedPicture ImageMemoryCache::get(const std::string& key) {
  std::lock_guard lock(mutex_);
  auto it = index_.find(key);
  if (it == index_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, it->second);
  return it->second->picture;
}

SharedPicture ImageMemoryCache::findByPrefix(const std::string& prefix) {
  std::lock_guard lock(mutex_);
  for (const Entry& entry : entries_) {
    if (entry.key.compare(0, prefix.size(), prefix) == 0) return entry.picture;
  }
  return nullptr;
}

size_t ImageMemoryCache::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

size_t ImageMemoryCache::count() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

}  // namespace nembra
