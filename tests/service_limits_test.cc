// The local service against hostile clients: request shapes that could be read two ways, heads
// that never end or never stop, bodies that trickle, and floods of sessions. Every case runs
// against the running service over real sockets, on both of its HTTP ports where it applies.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "service/local_service.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A client socket to 127.0.0.1 that gives up on a read after |timeout|.
class RawClient {
 public:
  RawClient(int port, std::chrono::milliseconds timeout = 5000ms) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    timeval tv{static_cast<time_t>(timeout.count() / 1000),
               static_cast<suseconds_t>(timeout.count() % 1000 * 1000)};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawClient() { ::close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool send(const std::string& bytes) {
    return connected_ && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
                             static_cast<ssize_t>(bytes.size());
  }
  // Everything until the server closes, a read times out, or |enough| bytes came.
  std::string receive(size_t enough = SIZE_MAX) {
    std::string answer;
    char buffer[4096];
    for (ssize_t got; answer.size() < enough && (got = ::recv(fd_, buffer, sizeof buffer, 0)) > 0;)
      answer.append(buffer, static_cast<size_t>(got));
    return answer;
  }
  // The status of the first answer line; 0 when none came.
  int status() {
    std::string answer = receive(12);
    return answer.rfind("HTTP/1.1 ", 0) == 0 ? std::atoi(answer.c_str() + 9) : 0;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};

long residentKiB() {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return 0;
}

class ServiceLimitsTest : public ::testing::Test {
 protected:
  void start(ServiceOptions options) {
    options.port = 0;
    options.rtmpPort = 0;
    options.dataDir = data_.path();
    service_ = std::make_unique<LocalService>(options, [](const std::string&) {});
    auto error = service_->start();
    ASSERT_FALSE(error) << error->message;
  }

  // A request the API port answers without a session.
  static std::string sessionRequest() {
    return "POST /session HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\n\r\n";
  }
  // One the storage port answers at once (405: it takes POSTs only).
  static std::string storageProbe() {
    return "GET /storage/nembra-media HTTP/1.1\r\nHost: h\r\n\r\n";
  }

  testing::TempDir data_{"nembra-limits"};
  std::unique_ptr<LocalService> service_;
};

// Each shape, sent to each port: the same verdict from both, and at once.
TEST_F(ServiceLimitsTest, BothPortsRefuseAmbiguousFramingAlike) {
  start({});
  struct Shape {
    const char* name;
    std::string headers;
    int status;
  };
  const std::vector<Shape> shapes = {
      {"conflicting lengths", "Content-Length: 5\r\nContent-Length: 6\r\n", 400},
      {"conflicting lengths in one field", "Content-Length: 5, 6\r\n", 400},
      {"20 digits", "Content-Length: 99999999999999999999\r\n", 400},
      {"negative", "Content-Length: -1\r\n", 400},
      {"exponent", "Content-Length: 1e9\r\n", 400},
      {"2^64", "Content-Length: 18446744073709551616\r\n", 400},
      {"gzip then chunked", "Transfer-Encoding: gzip, chunked\r\n", 501},
      {"chunked and a length", "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n", 400},
      {"head over 16 KiB", "X-Pad: " + std::string(17 * 1024, 'a') + "\r\n", 431},
  };
  struct Port {
    const char* name;
    int port;
    std::string target;
  };
  const std::vector<Port> ports = {{"api", service_->port(), "/session"},
                                   {"storage", service_->storagePort(), "/storage/nembra-media"}};
  for (const auto& port : ports) {
    for (const auto& shape : shapes) {
      RawClient client(port.port, 3000ms);
      // No body follows: a server that waited for one would time out instead of answering.
      client.send("POST " + port.target + " HTTP/1.1\r\nHost: h\r\n" + shape.headers + "\r\n");
      auto before = Clock::now();
      EXPECT_EQ(client.status(), shape.status) << port.name << ": " << shape.name;
      EXPECT_LT(Clock::now() - before, 2s) << port.name << ": " << shape.name;
    }
  }
}

TEST_F(ServiceLimitsTest, ReasonPhrasesAreTheRealOnes) {
  start({});
  for (int port : {service_->port(), service_->storagePort()}) {
    RawClient client(port);
    client.send("POST / HTTP/1.1\r\nHost: h\r\nX-Pad: " + std::string(17 * 1024, 'a') + "\r\n\r\n");
    EXPECT_EQ(client.receive().substr(0, 45), "HTTP/1.1 431 Request Header Fields Too Large\r");
  }
  RawClient chunked(service_->port());
  chunked.send("POST / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: gzip, chunked\r\n\r\n");
  EXPECT_EQ(chunked.receive().substr(0, 30), "HTTP/1.1 501 Not Implemented\r\n");
}

// More slow clients than workers on each port, trickling heads and bodies: probes are still
// answered at once, and the slow ones are dropped with 408 when their time is up.
TEST_F(ServiceLimitsTest, SlowClientsNeitherStarveOthersNorStayForever) {
  ServiceOptions options;
  options.httpThreads = 4;
  options.headTimeoutMs = 1500;
  options.bodyGraceMs = 1000;
  options.minBodyBytesPerSecond = 1024;
  start(options);

  constexpr int kSlowPerKind = 12;  // three times the workers
  std::vector<std::unique_ptr<RawClient>> heads, bodies;
  for (int port : {service_->port(), service_->storagePort()}) {
    for (int i = 0; i < kSlowPerKind; ++i) {
      heads.push_back(std::make_unique<RawClient>(port, 4000ms));
      heads.back()->send("POST / HTTP/1.1\r\nHost: h\r\n");
      bodies.push_back(std::make_unique<RawClient>(port, 4000ms));
    }
  }
  // Bodies to a REST route of the API port (read before any session check) and to storage.
  for (size_t i = 0; i < bodies.size(); ++i) {
    bodies[i]->send(std::string("POST ") +
                    (i < kSlowPerKind ? "/v1/applications/app1/videos" : "/storage/nembra-media") +
                    " HTTP/1.1\r\nHost: h\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                    "Content-Length: 1000\r\n\r\nx");
  }
  // A header line, or a body byte, every 200 ms from each: never enough to finish in time.
  std::atomic<bool> trickling{true};
  std::thread trickle([&] {
    while (trickling) {
      for (auto& client : heads) client->send("X-Slow: 1\r\n");
      for (auto& client : bodies) client->send("y");
      std::this_thread::sleep_for(200ms);
    }
  });
  std::this_thread::sleep_for(300ms);

  int answered = 0;
  for (int i = 0; i < 4; ++i) {
    RawClient api(service_->port(), 1000ms);
    api.send(sessionRequest());
    answered += api.status() == 200;
    RawClient storage(service_->storagePort(), 1000ms);
    storage.send(storageProbe());
    answered += storage.status() == 405;
  }
  EXPECT_EQ(answered, 8);

  // Past the head deadline and the body's grace every slow client has its answer.
  int timedOut = 0;
  for (auto& client : heads) timedOut += client->status() == 408;
  for (auto& client : bodies) timedOut += client->status() == 408;
  trickling = false;
  trickle.join();
  EXPECT_EQ(timedOut, 4 * kSlowPerKind);
}

// Endless heads cost a bounded buffer each and are refused; the memory is given back.
TEST_F(ServiceLimitsTest, HugeHeadsAreRefusedWithoutGrowingMemory) {
  start({});
  long before = residentKiB();
  std::vector<std::future<int>> senders;
  for (int port :
       {service_->port(), service_->port(), service_->storagePort(), service_->storagePort()}) {
    senders.push_back(std::async(std::launch::async, [port] {
      RawClient client(port);
      client.send("GET / HTTP/1.1\r\nHost: h\r\n");
      const std::string line = "X-Long: " + std::string(1000, 'b') + "\r\n";
      // 8 MB of header lines, or until the server has answered and stopped reading.
      for (int i = 0; i < 8000 && client.send(line); ++i) {
      }
      return client.status();
    }));
  }
  for (auto& sender : senders) EXPECT_EQ(sender.get(), 431);
  EXPECT_LT(residentKiB() - before, 16 * 1024);
}

TEST_F(ServiceLimitsTest, ASessionFloodFromOneAddressIsRefused) {
  ServiceOptions options;
  options.sessionsPerMinute = 3;
  start(options);
  std::vector<int> statuses;
  for (int i = 0; i < 5; ++i) {
    RawClient client(service_->port());
    client.send(sessionRequest());
    statuses.push_back(client.status());
  }
  EXPECT_EQ(statuses, (std::vector<int>{200, 200, 200, 429, 429}));
}

}  // namespace
}  // namespace nembra
