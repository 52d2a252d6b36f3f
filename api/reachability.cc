#include "api/reachability.h"

#include <arpa/inet.h>

#include <cstdio>

#include "api/console_log.h"

namespace nembra {

namespace {

Reachability::SourcePtr defaultSource() {
  static Reachability::SourcePtr source = makeLinuxNetworkInterfaceSource();
  return source;
}

bool usable(const NetworkInterface& iface) {
  return iface.up && !iface.loopback && (iface.hasIPv4 || iface.hasGlobalIPv6);
}

}  // namespace

Reachability::Reachability(Target target, std::string name)
    : target_(target),
      name_(std::move(name)),
      alwaysReturnLocalWiFiStatus_(target == Target::LocalWiFi),
      source_(defaultSource()),
      center_(&NotificationCenter::defaultCenter()) {}

Reachability::~Reachability() {
  SourcePtr source;
  {
    std::lock_guard lock(mutex_);
    if (!notifying_) return;
    notifying_ = false;
    source = source_;
  }
  source->stopWatching();
}

std::shared_ptr<Reachability> Reachability::reachabilityWithHostName(const std::string& hostName) {
  return std::shared_ptr<Reachability>(new Reachability(Target::HostName, hostName));
}

std::shared_ptr<Reachability> Reachability::reachabilityWithAddress(const std::string& address) {
  return std::shared_ptr<Reachability>(new Reachability(Target::Address, address));
}

std::shared_ptr<Reachability> Reachability::reachabilityForInternetConnection() {
  return std::shared_ptr<Reachability>(new Reachability(Target::Internet, "0.0.0.0"));
}

std::shared_ptr<Reachability> Reachability::reachabilityForLocalWiFi() {
  return std::shared_ptr<Reachability>(new Reachability(Target::LocalWiFi, "169.254.0.0"));
}

void Reachability::setInterfaceSource(SourcePtr source) {
  bool wasNotifying;
  {
    std::lock_guard lock(mutex_);
    wasNotifying = notifying_;
  }
  if (wasNotifying) stopNotifier();
  {
    std::lock_guard lock(mutex_);
    source_ = std::move(source);
    lastStatus_.reset();
  }
  if (wasNotifying) startNotifier();
}

void Reachability::setNotificationCenter(NotificationCenter& center) {
  std::lock_guard lock(mutex_);
  center_ = &center;
}

bool Reachability::startNotifier() {
  SourcePtr source;
  {
    std::lock_guard lock(mutex_);
    if (notifying_) return true;
    notifying_ = true;
    source = source_;
  }
  int status = currentReachabilityStatus();
  {
    std::lock_guard lock(mutex_);
    lastStatus_ = status;
  }
  std::weak_ptr<Reachability> weak = weak_from_this();
  source->startWatching([weak] {
    if (auto self = weak.lock()) self->onInterfacesChanged();
  });
  return true;
}

void Reachability::stopNotifier() {
  SourcePtr source;
  {
    std::lock_guard lock(mutex_);
    if (!notifying_) return;
    notifying_ = false;
    source = source_;
  }
  source->stopWatching();
}

void Reachability::onInterfacesChanged() {
  int status = currentReachabilityStatus();
  NotificationCenter* center;
  {
    std::lock_guard lock(mutex_);
    // netlink reports every address refresh; only a change of status is news.
    if (lastStatus_ == status) return;
    lastStatus_ = status;
    center = center_;
  }
  center->post(kNetworkReachabilityChangedNotification, shared_from_this());
}

bool Reachability::targetIsLoopback() const {
  if (target_ == Target::HostName) return name_ == "localhost";
  if (target_ != Target::Address) return false;
  in_addr v4{};
  if (inet_pton(AF_INET, name_.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  return inet_pton(AF_INET6, name_.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

uint32_t Reachability::flagsFromSnapshot(const NetworkSnapshot& snapshot) const {
  using namespace ReachabilityFlag;
  if (targetIsLoopback()) {
    for (const auto& iface : snapshot) {
      if (iface.loopback && iface.up) return kReachable | kIsLocalAddress | kIsDirect;
    }
    return 0;
  }
  bool wired = false;
  bool cellular = false;
  bool linkLocal = false;
  for (const auto& iface : snapshot) {
    if (!usable(iface)) continue;
    (iface.cellular ? cellular : wired) = true;
    if (!iface.cellular && iface.hasLinkLocalIPv4) linkLocal = true;
  }
  if (wired) {
    // A local-network target is direct when a non-cellular link is up; a link-local address
    // is only reachable over a link that has one.
    bool direct = target_ == Target::LocalWiFi ||
                  (target_ == Target::Address && name_.rfind("169.254.", 0) == 0 && linkLocal);
    return kReachable | (direct ? kIsDirect : 0);
  }
  if (cellular) return kReachable | kIsWWAN;
  return 0;
}

std::optional<uint32_t> Reachability::reachabilityFlags() {
  SourcePtr source;
  {
    std::lock_guard lock(mutex_);
    source = source_;
  }
  if (!source) return std::nullopt;
  return flagsFromSnapshot(source->snapshot());
}

int Reachability::localWiFiStatusForFlags(uint32_t flags) {
  consoleLog(flagStatusLine(flags, "localWiFiStatusForFlags"));
  using namespace ReachabilityFlag;
  return (flags & kReachable) && (flags & kIsDirect) ? ReachableViaWiFi : NotReachable;
}

int Reachability::networkStatusForFlags(uint32_t flags) {
  consoleLog(flagStatusLine(flags, "networkStatusForFlags"));
  using namespace ReachabilityFlag;
  if (!(flags & kReachable)) return NotReachable;
  int status = NotReachable;
  // A reachable target that needs no connection first is reachable over the local link.
  if (!(flags & kConnectionRequired)) status = ReachableViaWiFi;
  // On-demand or on-traffic connections need no user intervention: also reachable.
  if ((flags & (kConnectionOnDemand | kConnectionOnTraffic)) && !(flags & kInterventionRequired)) {
    status = ReachableViaWiFi;
  }
  if (flags & kIsWWAN) status = ReachableViaWWAN;
  return status;
}

std::string Reachability::flagStatusLine(uint32_t flags, const char* comment) {
  using namespace ReachabilityFlag;
  char line[128];
  std::snprintf(line, sizeof(line), "Reachability Flag Status: %c%c %c%c%c%c%c%c%c %s\n",
                (flags & kIsWWAN) ? 'W' : '-', (flags & kReachable) ? 'R' : '-',
                (flags & kTransientConnection) ? 't' : '-',
                (flags & kConnectionRequired) ? 'c' : '-',
                (flags & kConnectionOnTraffic) ? 'C' : '-',
                (flags & kInterventionRequired) ? 'i' : '-',
                (flags & kConnectionOnDemand) ? 'D' : '-', (flags & kIsLocalAddress) ? 'l' : '-',
                (flags & kIsDirect) ? 'd' : '-', comment);
  return line;
}

int Reachability::currentReachabilityStatus() {
  auto flags = reachabilityFlags();
  if (!flags) return NotReachable;
  return alwaysReturnLocalWiFiStatus_ ? localWiFiStatusForFlags(*flags)
                                      : networkStatusForFlags(*flags);
}

bool Reachability::connectionRequired() {
  auto flags = reachabilityFlags();
  return flags && (*flags & ReachabilityFlag::kConnectionRequired);
}

}  // namespace nembra
