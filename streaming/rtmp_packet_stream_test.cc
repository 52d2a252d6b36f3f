// Loopback tests of the connection and the packet stream against a scripted server thread.
#include "streaming/rtmp_packet_stream.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "streaming/media_callback.h"
#include "streaming/rtmp_chunk_demuxer.h"
#include "streaming/rtmp_chunk_formatter.h"
#include "streaming/testing/stream_log_capture.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

// Accepts one client on 127.0.0.1 and runs |script| on it in a thread of its own.
class ScriptedServer {
 public:
  using Script = std::function<void(int client)>;

  explicit ScriptedServer(Script script, int receiveBuffer = 0) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (receiveBuffer > 0) {
      ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 4) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("scripted server cannot listen");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, script = std::move(script)] {
      // Waits for the client in short slices so that an unused server can be abandoned.
      pollfd waiter{listener_, POLLIN, 0};
      while (!abandoned_ && ::poll(&waiter, 1, 50) == 0) {
      }
      if (abandoned_) return;
      const int client = ::accept(listener_, nullptr, nullptr);
      if (client < 0) return;
      const timeval timeout{10, 0};
      ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
      script(client);
      ::close(client);
    });
  }

  ~ScriptedServer() {
    abandoned_ = true;
    Wait();
    ::close(listener_);
  }

  // Returns once the script has finished; what it recorded may then be read. REQUIRES: a
  // client has connected.
  void Wait() {
    if (thread_.joinable()) thread_.join();
  }

  uint16_t port() const { return port_; }

 private:
  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> abandoned_{false};
  std::thread thread_;
};

Bytes ReadExactly(int fd, size_t count, size_t pieceSize = 64 * 1024) {
  Bytes bytes(count);
  size_t at = 0;
  while (at < count) {
    const ssize_t n = ::recv(fd, bytes.data() + at, std::min(pieceSize, count - at), 0);
    if (n <= 0) break;
    at += static_cast<size_t>(n);
  }
  bytes.resize(at);
  return bytes;
}

void WriteInPieces(int fd, const Bytes& bytes, size_t pieceSize,
                   std::chrono::microseconds pause = 0us) {
  for (size_t at = 0; at < bytes.size(); at += pieceSize) {
    ::send(fd, bytes.data() + at, std::min(pieceSize, bytes.size() - at), MSG_NOSIGNAL);
    std::this_thread::sleep_for(pause);
  }
}

RTMPPacket MakePacket(RTMPChannel channel, RTMPPacketType type, size_t size, double pts = 0.0,
                      uint8_t seed = 1) {
  RTMPPacket packet(MediaType::Video, MediaCodec::H264, channel, type, 1);
  packet.SetPTS(pts);
  packet.Data().resize(size);
  for (size_t i = 0; i < size; ++i) {
    packet.Data()[i] = static_cast<uint8_t>(seed + i * 13);
  }
  return packet;
}

// The wire bytes of |packets| on one channel, as a peer at |chunkSize| would send them.
Bytes Chunked(const std::vector<RTMPPacket>& packets, uint64_t chunkSize) {
  Bytes bytes;
  RTMPChunkFormatter formatter(std::make_shared<MediaCallback<RTMPChunk>>([&](RTMPChunk chunk) {
                                 bytes.insert(bytes.end(), chunk.Data().begin(),
                                              chunk.Data().end());
                               }),
                               packets.front().Channel());
  formatter.SetChunkSize(chunkSize);
  for (const RTMPPacket& packet : packets) formatter.PutFrame(packet);
  return bytes;
}

struct Collected {
  std::mutex mutex;
  std::vector<RTMPPacket> packets;
  std::condition_variable arrived;

  bool WaitForCount(size_t count) {
    std::unique_lock lock(mutex);
    return arrived.wait_for(lock, 10s, [&] { return packets.size() >= count; });
  }
};

// Decodes what the client sent, as a peer would.
std::vector<RTMPPacket> Decode(const Bytes& bytes, uint64_t chunkSize = 128) {
  std::vector<RTMPPacket> packets;
  RTMPChunkDemuxer demuxer(std::make_shared<MediaCallback<RTMPPacket>>(
      [&](RTMPPacket packet) { packets.push_back(packet); }));
  demuxer.SetChunkSize(chunkSize);
  demuxer.Consume(bytes);
  return packets;
}

TEST(NetworkConnectionTest, Ipv4LiteralNeedsNoNameLookup) {
  ScriptedServer server([](int) {});
  NetworkConnection connection;
  connection.Connect("127.0.0.1", server.port());
  EXPECT_EQ(connection.Counters().nameLookups, 0u);
  connection.Connect("localhost", server.port());
  EXPECT_EQ(connection.Counters().nameLookups, 1u);
}

TEST(NetworkConnectionTest, ConnectFailuresCarryFixedMessages) {
  NetworkConnection connection;
  try {
    connection.Connect("no-such-host.invalid", 1935);
    FAIL() << "expected an error";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "unknown host: no-such-host.invalid");
  }
  uint16_t closedPort;
  {
    ScriptedServer server([](int) {});
    closedPort = server.port();
    NetworkConnection probe;
    probe.Connect("127.0.0.1", closedPort);
  }
  try {
    connection.Connect("127.0.0.1", closedPort);
    FAIL() << "expected an error";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "can't connect socket");
  }
}

TEST(RTMPPacketStreamTest, SendsEachMessageInOneGatheredWrite) {
  StreamLogCapture log;
  Bytes received;
  ScriptedServer server(
      [&](int client) { received = ReadExactly(client, 12 + 200 + 1 + 4 + 200 + 1); });
  NetworkConnection connection;
  connection.Connect("127.0.0.1", server.port());
  {
    RTMPPacketStream stream(connection, std::make_shared<MediaCallback<RTMPPacket>>());
    const uint64_t callsBefore = connection.Counters().sendCalls;
    stream.PutFrame(MakePacket(RTMPChannel::Video, RTMPPacketType::Video, 200, 0.0));
    stream.PutFrame(MakePacket(RTMPChannel::Video, RTMPPacketType::Video, 200, 0.04));
    EXPECT_EQ(connection.Counters().sendCalls - callsBefore, 2u);
    stream.Close();
  }
  server.Wait();
  EXPECT_EQ(log.Count("channel created: 6"), 1u);
  ASSERT_EQ(received.size(), 418u);
  EXPECT_EQ(Bytes(received.begin(), received.begin() + 12),
            (Bytes{0x06, 0, 0, 0, 0, 0, 0xC8, 0x09, 0x01, 0, 0, 0}));
  EXPECT_EQ(received[12 + 128], 0xC6);
  EXPECT_EQ(Bytes(received.begin() + 213, received.begin() + 217), (Bytes{0x86, 0, 0, 40}));
  EXPECT_EQ(received[217 + 128], 0xC6);
  const std::vector<RTMPPacket> decoded = Decode(received);
  ASSERT_EQ(decoded.size(), 2u);
  EXPECT_EQ(decoded[1].Data(), MakePacket(RTMPChannel::Video, RTMPPacketType::Video, 200).Data());
}

TEST(RTMPPacketStreamTest, PeerCloseEndsReceiverWithItsLogLines) {
  StreamLogCapture log;
  ScriptedServer server([](int) {});
  NetworkConnection connection;
  connection.Connect("127.0.0.1", server.port());
  RTMPPacketStream stream(connection, std::make_shared<MediaCallback<RTMPPacket>>());
  ASSERT_TRUE(log.WaitFor("rtmp receiver thread done"));
  EXPECT_THAT(log.Lines(), ::testing::ElementsAre("rtmp receiver thread started",
                                                  "rtmp receiver error: netowrk recv data failed",
                                                  "rtmp receiver thread done"));
  // Kept as is: a failed send is not reported to the sender; the receiver has reported it.
  EXPECT_NO_THROW(stream.PutFrame(MakePacket(RTMPChannel::Video, RTMPPacketType::Video, 10)));
}

TEST(RTMPPacketStreamTest, ReassemblesTrickledChunksAndAdoptsAnnouncedChunkSize) {
  StreamLogCapture log;
  RTMPPacket setChunkSize(MediaType::Data, MediaCodec::None, RTMPChannel::Control,
                          RTMPPacketType::SetChunkSize, 0);
  setChunkSize.Data() = {0x00, 0x00, 0x10, 0x00};
  const RTMPPacket big = MakePacket(RTMPChannel::Command, RTMPPacketType::Command, 3000, 0, 5);
  const RTMPPacket small = MakePacket(RTMPChannel::Command, RTMPPacketType::Command, 300, 0.1, 9);
  Bytes script = Chunked({setChunkSize}, 128);
  const Bytes commands = Chunked({big, small}, 4096);
  script.insert(script.end(), commands.begin(), commands.end());

  ScriptedServer server([&](int client) {
    ReadExactly(client, 1);  // the client is ready
    WriteInPieces(client, script, 7, 200us);
    ReadExactly(client, 1);  // hold the connection until the client is done
  });
  NetworkConnection connection;
  connection.Connect("127.0.0.1", server.port());
  auto collected = std::make_shared<Collected>();
  std::atomic<RTMPPacketStream*> streamPointer{nullptr};
  RTMPPacketStream stream(connection,
                          std::make_shared<MediaCallback<RTMPPacket>>([&](RTMPPacket packet) {
                            if (packet.PacketType() == RTMPPacketType::SetChunkSize) {
                              BitstreamReader reader(packet.Data());
                              streamPointer.load()->SetChunkSize(reader.GetBits(32));
                            }
                            std::lock_guard lock(collected->mutex);
                            collected->packets.push_back(packet);
                            collected->arrived.notify_all();
                          }));
  streamPointer = &stream;
  const uint8_t go = 1;
  connection.Send(&go, 1);
  ASSERT_TRUE(collected->WaitForCount(3));
  stream.Close();
  connection.Send(&go, 1);

  EXPECT_EQ(stream.ChunkSize(), 4096u);
  std::lock_guard lock(collected->mutex);
  ASSERT_EQ(collected->packets.size(), 3u);
  EXPECT_EQ(collected->packets[1].Data(), big.Data());
  EXPECT_EQ(collected->packets[2].Data(), small.Data());
  EXPECT_EQ(collected->packets[2].Channel(), RTMPChannel::Command);
  EXPECT_EQ(log.Count("new input channel created: 2"), 1u);
  EXPECT_EQ(log.Count("new input channel created: 3"), 1u);
}

TEST(RTMPPacketStreamTest, ChunkSizeChangeReachesOnlyExistingFormatters) {
  StreamLogCapture quiet;
  const size_t first = 12 + 10;
  const size_t onExisting = 12 + 4096 + 1 + 904;
  const size_t onNew = 12 + 5000 + 39;
  Bytes received;
  ScriptedServer server(
      [&](int client) { received = ReadExactly(client, first + onExisting + onNew); });
  NetworkConnection connection;
  connection.Connect("127.0.0.1", server.port());
  RTMPPacketStream stream(connection, std::make_shared<MediaCallback<RTMPPacket>>());
  stream.PutFrame(MakePacket(RTMPChannel::Command, RTMPPacketType::Command, 10));
  stream.SetChunkSize(4096);
  stream.PutFrame(MakePacket(RTMPChannel::Command, RTMPPacketType::Command, 5000));
  stream.PutFrame(MakePacket(RTMPChannel::Publish, RTMPPacketType::Command, 5000));
  stream.Close();
  server.Wait();

  ASSERT_EQ(received.size(), first + onExisting + onNew);
  EXPECT_EQ(received[first + 12 + 4096], 0xC3);
  EXPECT_EQ(received[first + onExisting], 0x08);
  EXPECT_EQ(received[first + onExisting + 12 + 128], 0xC8);
}

TEST(RTMPPacketStreamTest, LargeMessageArrivesIntactThroughBurstyReader) {
  StreamLogCapture quiet;
  const RTMPPacket big = MakePacket(RTMPChannel::Video, RTMPPacketType::Video, 8 << 20, 0, 3);
  const size_t wireSize = 12 + 10 + 12 + big.Data().size() + (big.Data().size() / 4096 - 1);
  Bytes received;
  ScriptedServer server([&](int client) {
    // Pauses between bursts keep the sender blocked with its socket buffer full.
    while (received.size() < wireSize) {
      std::this_thread::sleep_for(20ms);
      const Bytes burst =
          ReadExactly(client, std::min<size_t>(512 * 1024, wireSize - received.size()));
      if (burst.empty()) break;
      received.insert(received.end(), burst.begin(), burst.end());
    }
  });
  NetworkConnection connection;
  connection.Connect("127.0.0.1", server.port());
  RTMPPacketStream stream(connection, std::make_shared<MediaCallback<RTMPPacket>>());
  stream.PutFrame(MakePacket(RTMPChannel::Video, RTMPPacketType::Video, 10));
  stream.SetChunkSize(4096);
  const uint64_t callsBefore = connection.Counters().sendCalls;
  stream.PutFrame(big);
  const uint64_t calls = connection.Counters().sendCalls - callsBefore;
  stream.Close();
  server.Wait();

  ASSERT_EQ(received.size(), wireSize);
  EXPECT_EQ(calls, 2u);  // 2048 chunks, at most 1024 buffers per gathered write
  const std::vector<RTMPPacket> decoded = Decode(received, 4096);
  ASSERT_EQ(decoded.size(), 2u);
  EXPECT_EQ(decoded[1].Data(), big.Data());
}

TEST(RTMPPacketStreamTest, RepliesFromReceiverThreadInterleaveWithSenderAsWholeMessages) {
  StreamLogCapture quiet;
  constexpr int kPings = 20;
  constexpr int kVideos = 40;
  std::vector<RTMPPacket> pings;
  for (int i = 0; i < kPings; ++i) {
    RTMPPacket ping(MediaType::Data, MediaCodec::None, RTMPChannel::Control,
                    RTMPPacketType::UserControl, 0);
    ping.Data() = {0, 6, 0, 0, 0, static_cast<uint8_t>(i)};
    ping.SetPTS(i * 0.001);
    pings.push_back(ping);
  }
  const Bytes pingBytes = Chunked(pings, 128);
  std::vector<RTMPPacket> fromClient;
  ScriptedServer server([&](int client) {
    WriteInPieces(client, pingBytes, 6, 300us);
    RTMPChunkDemuxer demuxer(std::make_shared<MediaCallback<RTMPPacket>>(
        [&](RTMPPacket packet) { fromClient.push_back(packet); }));
    Bytes piece(64 * 1024);
    while (fromClient.size() < kPings + kVideos) {
      const ssize_t n = ::recv(client, piece.data(), piece.size(), 0);
      if (n <= 0) break;
      demuxer.Consume(std::span<const uint8_t>(piece).first(static_cast<size_t>(n)));
    }
  });
  NetworkConnection connection;
  connection.Connect("127.0.0.1", server.port());
  std::atomic<RTMPPacketStream*> streamPointer{nullptr};
  std::atomic<int> pongs{0};
  RTMPPacketStream stream(connection,
                          std::make_shared<MediaCallback<RTMPPacket>>([&](RTMPPacket ping) {
                            while (!streamPointer.load()) std::this_thread::yield();
                            RTMPPacket pong(MediaType::Data, MediaCodec::None, RTMPChannel::Control,
                                            RTMPPacketType::UserControl, 0);
                            pong.Data() = ping.Data();
                            pong.Data()[1] = 7;
                            streamPointer.load()->PutFrame(pong);
                            ++pongs;
                          }));
  streamPointer = &stream;
  for (int i = 0; i < kVideos; ++i) {
    stream.PutFrame(MakePacket(RTMPChannel::Video, RTMPPacketType::Video, 10000, i * 0.04, i));
  }
  for (int i = 0; i < 500 && pongs < kPings; ++i) std::this_thread::sleep_for(10ms);
  stream.Close();
  server.Wait();

  int videos = 0, replies = 0;
  for (const RTMPPacket& packet : fromClient) {
    if (packet.Channel() == RTMPChannel::Video) {
      EXPECT_EQ(packet.Data(), MakePacket(RTMPChannel::Video, RTMPPacketType::Video, 10000, 0,
                                          static_cast<uint8_t>(videos))
                                   .Data());
      ++videos;
    } else {
      EXPECT_EQ(packet.Data(), (Bytes{0, 7, 0, 0, 0, static_cast<uint8_t>(replies)}));
      ++replies;
    }
  }
  EXPECT_EQ(videos, kVideos);
  EXPECT_EQ(replies, kPings);
}

TEST(RTMPPacketStreamTest, CloseStopsIdleReceiverPromptly) {
  StreamLogCapture log;
  ScriptedServer server([](int client) { ReadExactly(client, 1); });
  NetworkConnection connection;
  connection.Connect("127.0.0.1", server.port());
  RTMPPacketStream stream(connection, std::make_shared<MediaCallback<RTMPPacket>>());
  std::this_thread::sleep_for(250ms);  // a few idle polls
  const auto start = std::chrono::steady_clock::now();
  stream.Close();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_THAT(log.Lines(),
              ::testing::ElementsAre("rtmp receiver thread started", "closing packet stream",
                                     "rtmp receiver thread done"));
  EXPECT_GE(connection.Counters().pollCalls, 2u);
  const uint8_t done = 1;
  connection.Send(&done, 1);
}

}  // namespace
}  // namespace nembra
