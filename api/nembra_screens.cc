// The Nembra object's screen operations, kept apart from the service side: they reach the UI only
// through the installed NembraScreens and the host's presenter.
#include "api/nembra_screens.h"

#include <mutex>

#include "api/remote_image_loader.h"
#include "nembra/application.h"
#include "nembra/nembra_images.h"

namespace nembra {
namespace {

std::mutex installMutex;
std::shared_ptr<NembraScreens> installedScreens;  // guarded by installMutex

}  // namespace

void NembraScreens::install(std::shared_ptr<NembraScreens> screens) {
  std::lock_guard lock(installMutex);
  installedScreens = std::move(screens);
}

std::shared_ptr<NembraScreens> NembraScreens::installed() {
  std::lock_guard lock(installMutex);
  return installedScreens;
}

std::shared_ptr<RemoteImageLoader> Nembra::imageLoader() {
  std::lock_guard lock(lazyMutex_);
  if (!imageLoader_) imageLoader_ = std::make_shared<RemoteImageLoader>(*this);
  return imageLoader_;
}

void Nembra::showImage(const std::string& token) { showImages({token}); }

void Nembra::showImages(const std::vector<std::string>& tokens) {
  std::vector<std::string> uris;
  for (const std::string& token : tokens) uris.push_back(images().getImageUrl(token));
  showImageFromUris(uris);
}

void Nembra::showImageFromUri(const std::string& uri) { showImageFromUris({uri}); }

void Nembra::showImageFromUris(const std::vector<std::string>& uris) {
  auto screens = NembraScreens::installed();
  auto presenter = screenPresenter_.lock();
  if (!screens || !presenter) {
    logError(!screens ? "cannot show images: no screen module is installed"
                      : "cannot show images: no UI adapter is set");
    return;
  }
  screens->showImageFromUris(*this, *presenter, uris);
}

}  // namespace nembra
