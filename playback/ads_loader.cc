#include "playback/ads_loader.h"

#include <mutex>

namespace nembra {

namespace {

std::mutex& factoryMutex() {
  static std::mutex mutex;
  return mutex;
}

AdsLoaderFactory& installedFactory() {
  static AdsLoaderFactory factory;
  return factory;
}

}  // namespace

void setAdsLoaderFactory(AdsLoaderFactory factory) {
  std::lock_guard lock(factoryMutex());
  installedFactory() = std::move(factory);
}

std::unique_ptr<AdsLoader> makeAdsLoader() {
  AdsLoaderFactory factory;
  {
    std::lock_guard lock(factoryMutex());
    factory = installedFactory();
  }
  return factory ? factory() : nullptr;
}

}  // namespace nembra
