// A blocking TCP socket, the one seam between the SDK and the OS network stack: a client's
// connection (connect) or one a TcpListener accepted.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace nembra {

struct TcpTimeouts {
  std::chrono::milliseconds connect{10000};
  // A blocked send or receive gives up after this long and reports Failed.
  std::chrono::milliseconds send{10000};
  std::chrono::milliseconds receive{10000};
};

enum class TcpConnectStatus {
  Connected,
  UnknownHost,    // neither an IPv4 literal nor a name that resolves to an IPv4 address
  SocketFailed,   // no socket could be created
  ConnectFailed,  // refused, unreachable or timed out
};

enum class TcpIoStatus {
  Ok,
  Closed,  // the call returned 0: the peer closed (receive) or nothing could be written (send)
  Failed,  // the call returned -1 (after retries on EINTR); |error| holds errno
};

struct TcpIoResult {
  TcpIoStatus status = TcpIoStatus::Ok;
  size_t bytes = 0;  // transferred before the result
  int error = 0;
};

// How often the socket went to the kernel, to check that a message costs one gathered write.
struct TcpSocketCounters {
  uint64_t sendCalls = 0;
  uint64_t receiveCalls = 0;
  uint64_t pollCalls = 0;
  uint64_t nameLookups = 0;
};

// One sender thread and one receiving thread may use a socket at the same time; connect and
// close are not to race with either.
class TcpSocket {
 public:
  virtual ~TcpSocket() = default;

  // Closes any open connection first. Dotted IPv4 literals are used as they are, without a name
  // lookup; other hosts are resolved to their first IPv4 address. The connection has
  // TCP_NODELAY set and the send and receive timeouts applied.
  virtual TcpConnectStatus connect(const std::string& host, uint16_t port,
                                   const TcpTimeouts& timeouts) = 0;
  // Writes all |buffers| in order, gathered into as few system calls as the kernel allows
  // (one per 1024 buffers when nothing is cut short). A write to a closed peer fails with
  // EPIPE instead of raising SIGPIPE.
  virtual TcpIoResult sendAll(std::span<const std::span<const uint8_t>> buffers) = 0;
  // One receive of at most |buffer|.size() bytes; blocks until some arrive.
  virtual TcpIoResult receiveSome(std::span<uint8_t> buffer) = 0;
  // Receives exactly |buffer|.size() bytes.
  virtual TcpIoResult receiveAll(std::span<uint8_t> buffer) = 0;
  // True when a receive would not block: data, end of stream or an error is pending.
  virtual bool waitReadable(std::chrono::milliseconds timeout) = 0;
  // Makes a waitReadable in progress, or the next one, return false at once: how an owner
  // that is closing stops its receiving thread without waiting out the poll.
  virtual void interruptWait() = 0;
  virtual size_t bytesAvailable() = 0;
  // How long a blocked receive or send waits before failing with EAGAIN; at least 1 ms (zero
  // would mean forever). False when the socket refused it.
  virtual bool setReceiveTimeout(std::chrono::milliseconds timeout) = 0;
  virtual bool setSendTimeout(std::chrono::milliseconds timeout) = 0;
  // Stops sending (the peer reads the end of the stream) and keeps receiving.
  virtual void shutdownSending() = 0;
  // Ends both directions: a receive or send blocked in another thread returns, and every later
  // one fails. The descriptor stays open until close().
  virtual void shutdown() = 0;
  virtual void close() = 0;
  virtual bool isOpen() const = 0;
  virtual TcpSocketCounters counters() const = 0;
  // The peer's IP address as text ("127.0.0.1"); "" when not connected.
  virtual std::string peerAddress() const { return ""; }
  // The descriptor a SocketPoller watches for this socket; -1 when there is none.
  virtual int pollHandle() const { return -1; }
};

std::unique_ptr<TcpSocket> createTcpSocket();

}  // namespace nembra
