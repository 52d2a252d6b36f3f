// What the machine's network interfaces look like now, and a watcher that says when that may have
// changed. Reachability is computed from these snapshots.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace nembra {

struct NetworkInterface {
  std::string name;
  bool up = false;        // IFF_UP and IFF_RUNNING
  bool loopback = false;  // IFF_LOOPBACK
  bool cellular = false;  // sysfs DEVTYPE=wwan
  bool hasIPv4 = false;   // any IPv4 address
  bool hasGlobalIPv6 = false;
  bool hasLinkLocalIPv4 = false;  // 169.254.0.0/16
};

using NetworkSnapshot = std::vector<NetworkInterface>;

// The source of snapshots and change events. The Linux implementation reads getifaddrs and sysfs
// and listens to netlink; tests inject their own.
class NetworkInterfaceSource {
 public:
  virtual ~NetworkInterfaceSource() = default;
  virtual NetworkSnapshot snapshot() = 0;
  // |onChange| runs on the source's own thread whenever links or addresses change. One watcher
  // at a time; starting again replaces it.
  virtual void startWatching(std::function<void()> onChange) = 0;
  virtual void stopWatching() = 0;
};

// getifaddrs + /sys/class/net/<if>/uevent + an RTM_NEWLINK/RTM_NEWADDR netlink listener on the
// thread "com.nembra.netlink".
std::unique_ptr<NetworkInterfaceSource> makeLinuxNetworkInterfaceSource();

// Parses a sysfs uevent file's text; true when it says DEVTYPE=wwan.
bool ueventSaysCellular(const std::string& ueventText);

}  // namespace nembra
