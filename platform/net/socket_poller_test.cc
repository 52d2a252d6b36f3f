// The poller over real connections on 127.0.0.1.
#include "platform/net/socket_poller.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/net/tcp_listener.h"

namespace nembra {
namespace {

using std::chrono::milliseconds;

TEST(SocketPollerTest, ReportsOnlyTheSocketsWithInputAndWakesOnRequest) {
  OptionalError error;
  auto listener = TcpListener::open("127.0.0.1", 0, error);
  ASSERT_TRUE(listener);
  std::vector<std::unique_ptr<TcpSocket>> clients, servers;
  auto poller = SocketPoller::create();
  ASSERT_TRUE(poller);
  for (uint64_t key = 0; key < 3; ++key) {
    clients.push_back(createTcpSocket());
    ASSERT_EQ(clients.back()->connect("127.0.0.1", static_cast<uint16_t>(listener->port()), {}),
              TcpConnectStatus::Connected);
    servers.push_back(listener->accept());
    ASSERT_TRUE(poller->watch(servers.back()->pollHandle(), key));
  }
  std::vector<uint64_t> ready;
  poller->wait(milliseconds(0), ready);
  EXPECT_TRUE(ready.empty());

  const uint8_t byte = 'x';
  const std::span<const uint8_t> one(&byte, 1);
  ASSERT_EQ(clients[1]->sendAll({&one, 1}).status, TcpIoStatus::Ok);
  clients[2]->close();  // an end of stream is input too
  std::vector<uint64_t> seen;
  for (int i = 0; i < 10 && seen.size() < 2; ++i) {
    poller->wait(milliseconds(1000), ready);
    seen.insert(seen.end(), ready.begin(), ready.end());
    for (uint64_t key : ready) poller->forget(servers[key]->pollHandle());
  }
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<uint64_t>{1, 2}));

  std::thread waker([&] { poller->wake(); });
  poller->wait(milliseconds(10000), ready);  // returns at the wake, not after 10 s
  waker.join();
  EXPECT_TRUE(ready.empty());
  EXPECT_FALSE(servers[0]->peerAddress().empty());
}

}  // namespace
}  // namespace nembra
