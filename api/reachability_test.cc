#include "api/reachability.h"

#include <gtest/gtest.h>

#include <mutex>

#include "platform/net/network_interfaces.h"
#include "platform/net/testing/fake_network_interfaces.h"

namespace nembra {
namespace {

using namespace ReachabilityFlag;

struct FlagCase {
  uint32_t flags;
  int status;
};

class NetworkStatusForFlagsTest : public testing::TestWithParam<FlagCase> {};

TEST_P(NetworkStatusForFlagsTest, MapsFlagsToStatus) {
  EXPECT_EQ(Reachability::networkStatusForFlags(GetParam().flags), GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(
    Table, NetworkStatusForFlagsTest,
    testing::Values(
        FlagCase{0, NotReachable}, FlagCase{kReachable, ReachableViaWiFi},
        FlagCase{kReachable | kConnectionRequired, NotReachable},
        FlagCase{kReachable | kConnectionRequired | kConnectionOnTraffic, ReachableViaWiFi},
        FlagCase{kReachable | kConnectionRequired | kConnectionOnDemand, ReachableViaWiFi},
        FlagCase{kReachable | kConnectionRequired | kConnectionOnTraffic | kInterventionRequired,
                 NotReachable},
        FlagCase{kReachable | kIsWWAN, ReachableViaWWAN}, FlagCase{kIsWWAN, NotReachable}));

TEST(ReachabilityTest, LocalWiFiNeedsReachableAndDirect) {
  EXPECT_EQ(Reachability::localWiFiStatusForFlags(kReachable | kIsDirect), ReachableViaWiFi);
  EXPECT_EQ(Reachability::localWiFiStatusForFlags(kReachable), NotReachable);
  EXPECT_EQ(Reachability::localWiFiStatusForFlags(kIsDirect), NotReachable);
}

TEST(ReachabilityTest, FlagStatusLineNamesEachBit) {
  EXPECT_EQ(Reachability::flagStatusLine(
                kIsWWAN | kReachable | kTransientConnection | kIsLocalAddress | kIsDirect,
                "networkStatusForFlags"),
            "Reachability Flag Status: WR t----ld networkStatusForFlags\n");
  EXPECT_EQ(Reachability::flagStatusLine(kConnectionRequired | kConnectionOnTraffic |
                                             kInterventionRequired | kConnectionOnDemand,
                                         "localWiFiStatusForFlags"),
            "Reachability Flag Status: -- -cCiD-- localWiFiStatusForFlags\n");
}

NetworkInterface loopback() {
  NetworkInterface i;
  i.name = "lo";
  i.up = i.loopback = i.hasIPv4 = true;
  return i;
}
NetworkInterface ethernet(bool up = true) {
  NetworkInterface i;
  i.name = "eth0";
  i.up = up;
  i.hasIPv4 = true;
  return i;
}
NetworkInterface modem() {
  NetworkInterface i;
  i.name = "wwan0";
  i.up = i.cellular = true;
  i.hasGlobalIPv6 = true;
  return i;
}

TEST(ReachabilityTest, InternetStatusFollowsUsableInterfaces) {
  auto fake = std::make_shared<FakeNetworkInterfaces>();
  auto internet = Reachability::reachabilityForInternetConnection();
  internet->setInterfaceSource(fake);

  fake->set({loopback()});
  EXPECT_EQ(internet->currentReachabilityStatus(), NotReachable);
  fake->set({loopback(), ethernet(/*up=*/false)});
  EXPECT_EQ(internet->currentReachabilityStatus(), NotReachable);
  fake->set({loopback(), modem()});
  EXPECT_EQ(internet->currentReachabilityStatus(), ReachableViaWWAN);
  fake->set({loopback(), modem(), ethernet()});
  EXPECT_EQ(internet->currentReachabilityStatus(), ReachableViaWiFi);

  auto local = Reachability::reachabilityForLocalWiFi();
  local->setInterfaceSource(fake);
  EXPECT_EQ(local->currentReachabilityStatus(), ReachableViaWiFi);
  fake->set({loopback(), modem()});
  EXPECT_EQ(local->currentReachabilityStatus(), NotReachable);

  auto localhost = Reachability::reachabilityWithAddress("127.0.0.1");
  localhost->setInterfaceSource(fake);
  EXPECT_EQ(localhost->currentReachabilityStatus(), ReachableViaWiFi);
}

TEST(ReachabilityTest, PostsOneNotificationPerStatusChangeOnTheMainQueue) {
  MainQueue main;
  NotificationCenter center(main);
  auto fake = std::make_shared<FakeNetworkInterfaces>();
  fake->set({loopback(), ethernet()});
  auto internet = Reachability::reachabilityForInternetConnection();
  internet->setInterfaceSource(fake);
  internet->setNotificationCenter(center);

  std::vector<int> statuses;
  center.addObserver(kNetworkReachabilityChangedNotification, [&](const std::any& object) {
    statuses.push_back(
        std::any_cast<std::shared_ptr<Reachability>>(object)->currentReachabilityStatus());
  });
  ASSERT_TRUE(internet->startNotifier());

  fake->change({loopback(), ethernet()});  // an address refresh: same status, no news
  main.runUntilIdle();
  fake->change({loopback()});
  main.runUntilIdle();
  fake->change({loopback(), modem()});
  main.runUntilIdle();
  EXPECT_EQ(statuses, (std::vector<int>{NotReachable, ReachableViaWWAN}));

  internet->stopNotifier();
  fake->change({loopback(), ethernet()});
  main.runUntilIdle();
  EXPECT_EQ(statuses.size(), 2u);
}

TEST(ReachabilityTest, UeventDevtypeMarksCellular) {
  EXPECT_TRUE(ueventSaysCellular("INTERFACE=wwan0\nIFINDEX=4\nDEVTYPE=wwan\n"));
  EXPECT_FALSE(ueventSaysCellular("INTERFACE=wlan0\nIFINDEX=3\nDEVTYPE=wlan\n"));
  EXPECT_FALSE(ueventSaysCellular("INTERFACE=eth0\n"));
}

}  // namespace
}  // namespace nembra
