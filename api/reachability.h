// Whether a network target can be reached, and through which kind of link. Status comes from a
// flag word; on Linux the flags are derived from the interface snapshot (usable = up, running,
// not loopback, with an IPv4 or global IPv6 address; cellular = sysfs DEVTYPE wwan).
//
// Threading: call from any thread. Change notifications ("kNetworkReachabilityChangedNotification",
// object = the std::shared_ptr<Reachability>) are posted on the main queue of the notification
// center given at creation.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/net/network_interfaces.h"
#include "platform/system/notification_center.h"

namespace nembra {

inline constexpr const char* kNetworkReachabilityChangedNotification =
    "kNetworkReachabilityChangedNotification";

enum NetworkStatus : int { NotReachable = 0, ReachableViaWiFi = 1, ReachableViaWWAN = 2 };

namespace ReachabilityFlag {
inline constexpr uint32_t kTransientConnection = 1 << 0;
inline constexpr uint32_t kReachable = 1 << 1;
inline constexpr uint32_t kConnectionRequired = 1 << 2;
inline constexpr uint32_t kConnectionOnTraffic = 1 << 3;
inline constexpr uint32_t kInterventionRequired = 1 << 4;
inline constexpr uint32_t kConnectionOnDemand = 1 << 5;
inline constexpr uint32_t kIsLocalAddress = 1 << 16;
inline constexpr uint32_t kIsDirect = 1 << 17;
inline constexpr uint32_t kIsWWAN = 1 << 18;
}  // namespace ReachabilityFlag

class Reachability : public std::enable_shared_from_this<Reachability> {
 public:
  using SourcePtr = std::shared_ptr<NetworkInterfaceSource>;

  static std::shared_ptr<Reachability> reachabilityWithHostName(const std::string& hostName);
  // |address| is an IPv4 or IPv6 literal.
  static std::shared_ptr<Reachability> reachabilityWithAddress(const std::string& address);
  static std::shared_ptr<Reachability> reachabilityForInternetConnection();
  static std::shared_ptr<Reachability> reachabilityForLocalWiFi();

  ~Reachability();

  // Replaces where interface snapshots come from (tests, hosts with their own network stack).
  // Restarts the notifier if it was running.
  void setInterfaceSource(SourcePtr source);
  void setNotificationCenter(NotificationCenter& center);

  // Starts posting change notifications; true when watching started (or already runs).
  bool startNotifier();
  void stopNotifier();

  int currentReachabilityStatus();
  bool connectionRequired();
  // The flag word, absent when it cannot be read.
  std::optional<uint32_t> reachabilityFlags();

  // The two status rules, public so their tables can be checked directly.
  static int localWiFiStatusForFlags(uint32_t flags);
  static int networkStatusForFlags(uint32_t flags);
  // "Reachability Flag Status: ..." for |flags| evaluated by |comment|.
  static std::string flagStatusLine(uint32_t flags, const char* comment);

 private:
  enum class Target { HostName, Address, Internet, LocalWiFi };
  Reachability(Target target, std::string name);

  uint32_t flagsFromSnapshot(const NetworkSnapshot& snapshot) const;
  bool targetIsLoopback() const;
  void onInterfacesChanged();

  const Target target_;
  const std::string name_;
  const bool alwaysReturnLocalWiFiStatus_;

  std::mutex mutex_;
  SourcePtr source_;               // guarded by mutex_
  NotificationCenter* center_;     // guarded by mutex_
  bool notifying_ = false;         // guarded by mutex_
  std::optional<int> lastStatus_;  // guarded by mutex_
};

}  // namespace nembra
