#include "nembra/cache_config.h"

#include "api/config_line.h"

namespace nembra {

namespace {

std::string sizeText(int64_t size) { return std::to_string(static_cast<int32_t>(size)); }

}  // namespace

std::string CacheConfig::toString() const {
  return configFieldLine("CacheConfig", {{"cache_size", sizeText(maxCacheSize_)},
                                         {"cache_root", nullableText(cacheRoot_)}});
}

std::string CacheConfig::stringValueConfig() const {
  return configJsonLine(
      {{"cache_size", sizeText(maxCacheSize_)}, {"cache_root", nullableText(cacheRoot_)}});
}

}  // namespace nembra
