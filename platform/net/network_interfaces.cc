#include "platform/net/network_interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "platform/dispatch/thread_name.h"

namespace nembra {

bool ueventSaysCellular(const std::string& ueventText) {
  std::istringstream in(ueventText);
  std::string line;
  while (std::getline(in, line)) {
    if (line == "DEVTYPE=wwan") return true;
  }
  return false;
}

namespace {

bool isCellularInterface(const std::string& name) {
  std::ifstream in("/sys/class/net/" + name + "/uevent");
  if (!in) return false;
  std::stringstream text;
  text << in.rdbuf();
  return ueventSaysCellular(text.str());
}

class LinuxNetworkInterfaceSource final : public NetworkInterfaceSource {
 public:
  ~LinuxNetworkInterfaceSource() override { stopWatching(); }

  NetworkSnapshot snapshot() override {
    std::map<std::string, NetworkInterface> byName;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return {};
    for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
      if (!entry->ifa_name) continue;
      auto& iface = byName[entry->ifa_name];
      iface.name = entry->ifa_name;
      iface.up = (entry->ifa_flags & IFF_UP) && (entry->ifa_flags & IFF_RUNNING);
      iface.loopback = entry->ifa_flags & IFF_LOOPBACK;
      if (!entry->ifa_addr) continue;
      if (entry->ifa_addr->sa_family == AF_INET) {
        iface.hasIPv4 = true;
        auto* in = reinterpret_cast<sockaddr_in*>(entry->ifa_addr);
        uint32_t addr = ntohl(in->sin_addr.s_addr);
        if ((addr & 0xFFFF0000u) == 0xA9FE0000u) iface.hasLinkLocalIPv4 = true;
      } else if (entry->ifa_addr->sa_family == AF_INET6) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(entry->ifa_addr);
        if (!IN6_IS_ADDR_LINKLOCAL(&in6->sin6_addr) && !IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr)) {
          iface.hasGlobalIPv6 = true;
        }
      }
    }
    freeifaddrs(list);
    NetworkSnapshot result;
    for (auto& [name, iface] : byName) {
      iface.cellular = !iface.loopback && isCellularInterface(name);
      result.push_back(iface);
    }
    return result;
  }

  void startWatching(std::function<void()> onChange) override {
    stopWatching();
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) return;  // no netlink (a restricted sandbox): snapshots still work on demand
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
      close(fd);
      return;
    }
    stop_ = false;
    fd_ = fd;
    thread_ = std::thread([this, fd, onChange = std::move(onChange)] {
      setCurrentThreadName("com.nembra.netlink");
      char buffer[8192];
      while (!stop_) {
        pollfd pfd{fd, POLLIN, 0};
        int ready = poll(&pfd, 1, 100);
        if (ready <= 0) continue;
        ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n <= 0) continue;
        bool relevant = false;
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer);
             NLMSG_OK(header, static_cast<unsigned>(n)); header = NLMSG_NEXT(header, n)) {
          switch (header->nlmsg_type) {
            case RTM_NEWLINK:
            case RTM_DELLINK:
            case RTM_NEWADDR:
            case RTM_DELADDR:
              relevant = true;
              break;
            default:
              break;
          }
        }
        if (relevant) onChange();
      }
    });
  }

  void stopWatching() override {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  std::atomic<bool> stop_{false};
  int fd_ = -1;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<NetworkInterfaceSource> makeLinuxNetworkInterfaceSource() {
  return std::make_unique<LinuxNetworkInterfaceSource>();
}

}  // namespace nembra
