#include "api/upload_network_hold.h"

#include "api/reachability.h"
#include "api/reachability_manager.h"
#include "nembra/application.h"

namespace nembra {

UploadNetworkHold::UploadNetworkHold(Nembra& application, ChangeHandler onChange)
    : application_(application),
      onChange_(std::move(onChange)),
      reachability_(ReachabilityManager::shared().reachability().shared_from_this()),
      center_(&NotificationCenter::defaultCenter()) {}

UploadNetworkHold::~UploadNetworkHold() {
  *alive_ = false;
  if (observer_) center_->removeObserver(*observer_);
}

void UploadNetworkHold::setReachability(std::shared_ptr<Reachability> reachability,
                                        NotificationCenter& center) {
  if (observer_) {
    center_->removeObserver(*observer_);
    observer_.reset();
  }
  reachability_ = std::move(reachability);
  center_ = &center;
}

void UploadNetworkHold::watch() {
  if (!observer_) {
    std::weak_ptr<bool> alive = alive_;
    MainQueue& main = application_.mainQueue();
    observer_ = center_->addObserver(kNetworkReachabilityChangedNotification,
                                     [this, alive, &main](const std::any&) {
                                       main.async([this, alive] {
                                         if (alive.lock() && onChange_) onChange_(status());
                                       });
                                     });
  }
  reachability_->startNotifier();
}

void UploadNetworkHold::unwatch() {
  if (!observer_) return;
  center_->removeObserver(*observer_);
  observer_.reset();
  reachability_->stopNotifier();
}

int UploadNetworkHold::status() const { return reachability_->currentReachabilityStatus(); }

bool UploadNetworkHold::waitsForWifi(int status) const {
  return application_.uploadingConfig().shouldUseWifiOnly() && status != NotReachable &&
         status != ReachableViaWiFi;
}

bool UploadNetworkHold::suspends(int status) const {
  return status == NotReachable ||
         (application_.uploadingConfig().shouldUseWifiOnly() && status != ReachableViaWiFi);
}

}  // namespace nembra
