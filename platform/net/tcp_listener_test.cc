// A listener and the sockets it accepts, over real connections on 127.0.0.1.
#include "platform/net/tcp_listener.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <thread>

namespace nembra {
namespace {

using std::chrono::milliseconds;

std::span<const uint8_t> Bytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

struct Pair {
  std::unique_ptr<TcpListener> listener;
  std::unique_ptr<TcpSocket> client;
  std::unique_ptr<TcpSocket> server;
};

Pair Connect() {
  Pair pair;
  OptionalError error;
  pair.listener = TcpListener::open("127.0.0.1", 0, error);
  EXPECT_TRUE(pair.listener) << (error ? error->message : "");
  if (!pair.listener) return pair;
  pair.client = createTcpSocket();
  EXPECT_EQ(pair.client->connect("127.0.0.1", static_cast<uint16_t>(pair.listener->port()), {}),
            TcpConnectStatus::Connected);
  pair.server = pair.listener->accept();
  EXPECT_TRUE(pair.server);
  return pair;
}

TEST(TcpListenerTest, AcceptedSocketCarriesBothWays) {
  Pair pair = Connect();
  ASSERT_TRUE(pair.server);
  const std::span<const uint8_t> hello[] = {Bytes("hel"), Bytes("lo")};
  ASSERT_EQ(pair.client->sendAll(hello).status, TcpIoStatus::Ok);
  uint8_t received[5];
  ASSERT_EQ(pair.server->receiveAll(received).status, TcpIoStatus::Ok);
  EXPECT_EQ(std::string(received, received + 5), "hello");

  const std::span<const uint8_t> answer[] = {Bytes("ok")};
  ASSERT_EQ(pair.server->sendAll(answer).status, TcpIoStatus::Ok);
  pair.server->shutdownSending();  // the client reads the answer, then the end of the stream
  uint8_t two[2];
  ASSERT_EQ(pair.client->receiveAll(two).status, TcpIoStatus::Ok);
  EXPECT_EQ(std::string(two, two + 2), "ok");
  EXPECT_EQ(pair.client->receiveSome(two).status, TcpIoStatus::Closed);
}

TEST(TcpListenerTest, ReceiveTimeoutFailsWithEagainAndShutdownWakesAReader) {
  Pair pair = Connect();
  ASSERT_TRUE(pair.server);
  ASSERT_TRUE(pair.server->setReceiveTimeout(milliseconds(30)));
  uint8_t byte;
  TcpIoResult waited = pair.server->receiveSome({&byte, 1});
  EXPECT_EQ(waited.status, TcpIoStatus::Failed);
  EXPECT_TRUE(waited.error == EAGAIN || waited.error == EWOULDBLOCK) << waited.error;

  ASSERT_TRUE(pair.server->setReceiveTimeout(milliseconds(60000)));
  auto reader = std::async(std::launch::async, [&] {
    return pair.server->receiveSome({&byte, 1});
  });
  std::this_thread::sleep_for(milliseconds(50));
  pair.server->shutdown();
  ASSERT_EQ(reader.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_NE(reader.get().status, TcpIoStatus::Ok);
}

TEST(TcpListenerTest, ShutdownEndsAcceptAndABusyPortIsRefused) {
  OptionalError error;
  auto listener = TcpListener::open("127.0.0.1", 0, error);
  ASSERT_TRUE(listener);
  auto second = TcpListener::open("127.0.0.1", listener->port(), error);
  EXPECT_FALSE(second);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Transport);

  auto accepted = std::async(std::launch::async, [&] { return listener->accept(); });
  std::this_thread::sleep_for(milliseconds(50));
  listener->shutdown();
  ASSERT_EQ(accepted.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(accepted.get(), nullptr);
  EXPECT_EQ(listener->accept(), nullptr);
}

}  // namespace
}  // namespace nembra
