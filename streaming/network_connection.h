// The one TCP connection under the RTMP client.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/net/tcp_socket.h"

namespace nembra {

// Failures are std::runtime_error with fixed texts that peers of this code match on. The
// sender and the receiving thread may use the connection at the same time; Connect and Close
// must not race with them.
class NetworkConnection {
 public:
  NetworkConnection();
  explicit NetworkConnection(std::unique_ptr<TcpSocket> socket);
  ~NetworkConnection();
  NetworkConnection(const NetworkConnection&) = delete;
  NetworkConnection& operator=(const NetworkConnection&) = delete;

  // Closes any open connection first. An IPv4 literal is used without a name lookup. Throws
  // "unknown host: " followed by the host, "can't open socket" or "can't connect socket".
  void Connect(const std::string& host, uint16_t port);

  // Sends every byte. Throws "network send data failed" when the socket takes nothing; a send
  // that fails outright returns as if it had succeeded. Kept as is: a broken connection is
  // noticed and reported by the receiving thread instead.
  void Send(const uint8_t* buffer, size_t size);
  // The same for several buffers, gathered into as few system calls as possible.
  void Send(std::span<const std::span<const uint8_t>> buffers);

  // Receives exactly |size| bytes. Throws "netowrk recv data failed" (spelled so: log readers
  // match on it) when the peer closes, on an error, or on the receive timeout.
  void Receive(uint8_t* buffer, size_t size);
  // Receives what is there, at least one byte, at most |capacity|; fails as Receive does.
  size_t ReceiveSome(uint8_t* buffer, size_t capacity);
  // What made the last receive fail, in plain words ("the server closed the connection"), for
  // messages to people; the thrown text stays as it is for the logs. Call from the receiving
  // thread, or after it has ended.
  const std::string& ReceiveFailureCause() const { return receiveFailureCause_; }
  // Waits up to |timeout| until a receive would not block (data, end of stream or error).
  bool WaitForData(std::chrono::milliseconds timeout);
  // Makes a WaitForData in progress (or the next one) return false at once.
  void InterruptWait();
  // Bytes that can be received without blocking.
  size_t DataSizeInReceiveBuffer();

  void Close();
  bool IsOpen() const;

  // Applies to the next Connect.
  void SetTimeouts(const TcpTimeouts& timeouts) { timeouts_ = timeouts; }
  const TcpTimeouts& Timeouts() const { return timeouts_; }
  TcpSocketCounters Counters() const { return socket_->counters(); }

 private:
  [[noreturn]] void FailReceive(const TcpIoResult& result);

  std::unique_ptr<TcpSocket> socket_;
  TcpTimeouts timeouts_;
  std::string receiveFailureCause_;
};

}  // namespace nembra
