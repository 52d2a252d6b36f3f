// The POSIX implementation of TcpSocket.
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <span>

#include "platform/net/tcp_socket.h"

namespace nembra {

class TcpSocketPosix : public TcpSocket {
 public:
  TcpSocketPosix();
  // Takes ownership of a connected socket (one a listener accepted).
  explicit TcpSocketPosix(int connectedFd);
  ~TcpSocketPosix() override;
  TcpSocketPosix(const TcpSocketPosix&) = delete;
  TcpSocketPosix& operator=(const TcpSocketPosix&) = delete;

  TcpConnectStatus connect(const std::string& host, uint16_t port,
                           const TcpTimeouts& timeouts) override;
  TcpIoResult sendAll(std::span<const std::span<const uint8_t>> buffers) override;
  TcpIoResult receiveSome(std::span<uint8_t> buffer) override;
  TcpIoResult receiveAll(std::span<uint8_t> buffer) override;
  bool waitReadable(std::chrono::milliseconds timeout) override;
  void interruptWait() override;
  size_t bytesAvailable() override;
  bool setReceiveTimeout(std::chrono::milliseconds timeout) override;
  bool setSendTimeout(std::chrono::milliseconds timeout) override;
  void shutdownSending() override;
  void shutdown() override;
  void close() override;
  bool isOpen() const override;
  TcpSocketCounters counters() const override;
  std::string peerAddress() const override;
  int pollHandle() const override { return fd_.load(); }

 private:
  std::atomic<int> fd_{-1};
  int wakeFd_ = -1;  // an eventfd that interruptWait signals
  std::atomic<uint64_t> sendCalls_{0};
  std::atomic<uint64_t> receiveCalls_{0};
  std::atomic<uint64_t> pollCalls_{0};
  std::atomic<uint64_t> nameLookups_{0};
};

// After a gathered write of |sent| bytes from |buffers| starting at |first|: returns the index
// of the first buffer with bytes left (buffers.size() when all went out) and trims that buffer
// to its unsent tail.
size_t tcpSkipSentBytes(std::span<iovec> buffers, size_t first, size_t sent);

}  // namespace nembra
