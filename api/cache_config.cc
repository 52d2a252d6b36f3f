#include "nembra/cache_config.h"

namespace nembra {

namespace {

std::string sizeText(int64_t size) { return std::to_string(static_cast<int32_t>(size)); }

// A missing root prints as the platform prints a missing object.
std::string rootText(const std::optional<std::string>& root) { return root ? *root : "(null)"; }

}  // namespace

std::string CacheConfig::toString() const {
  return "CacheConfig{" + std::string(24, ' ') + "cache_size=" + sizeText(maxCacheSize_) + "," +
         std::string(25, ' ') + "cache_root=" + rootText(cacheRoot_) + "}";
}

std::string CacheConfig::stringValueConfig() const {
  return "{" + std::string(24, ' ') + "\"cache_size\": " + sizeText(maxCacheSize_) + "," +
         std::string(25, ' ') + "\"cache_root\": " + rootText(cacheRoot_) + "}";
}

}  // namespace nembra
