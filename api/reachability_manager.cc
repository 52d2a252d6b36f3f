#include "api/reachability_manager.h"

namespace nembra {

ReachabilityManager& ReachabilityManager::shared() {
  static ReachabilityManager instance;
  return instance;
}

ReachabilityManager::ReachabilityManager()
    : reachability_(Reachability::reachabilityForInternetConnection()) {}

bool ReachabilityManager::isNetworkConnected() {
  reachability_->startNotifier();
  return reachability_->currentReachabilityStatus() != NotReachable;
}

bool ReachabilityManager::isWifiConnected() {
  reachability_->startNotifier();
  return reachability_->currentReachabilityStatus() == ReachableViaWiFi;
}

}  // namespace nembra
