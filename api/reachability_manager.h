// The SDK's one view of network reachability: the internet-connection target, shared.
//
// Threading: call from any thread; change notifications arrive on the main queue.
#pragma once

#include <memory>

#include "api/reachability.h"

namespace nembra {

class ReachabilityManager {
 public:
  static ReachabilityManager& shared();

  // Both start the change notifier on first use.
  bool isNetworkConnected();
  bool isWifiConnected();

  Reachability& reachability() { return *reachability_; }

 private:
  ReachabilityManager();
  std::shared_ptr<Reachability> reachability_;
};

}  // namespace nembra
