#include "api/cover_screens.h"

#include <mutex>

namespace nembra {
namespace {

std::mutex installMutex;
std::shared_ptr<CoverScreens> installedScreens;  // guarded by installMutex

}  // namespace

void CoverScreens::install(std::shared_ptr<CoverScreens> screens) {
  std::lock_guard lock(installMutex);
  installedScreens = std::move(screens);
}

std::shared_ptr<CoverScreens> CoverScreens::installed() {
  std::lock_guard lock(installMutex);
  return installedScreens;
}

}  // namespace nembra
