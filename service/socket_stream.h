// One accepted TCP connection with its receive buffer: reads land in a large buffer (so a body
// arrives in blocks of up to kBufferBytes per system call), the parsers work on the buffered
// bytes in place, and what they leave stays for the next request on the connection. The socket
// is platform's; this loop only decides how much to read and how long to wait.
//
// Threading: owned and used by the thread serving the connection; shutdown() may be called from
// any thread to end a read or write in progress.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "platform/net/tcp_socket.h"

namespace nembra {

class SocketStream {
 public:
  enum class Read {
    Data,      // at least one more byte is buffered
    Closed,    // the peer closed its side, or the connection was shut down
    TimedOut,  // nothing came within the timeout
    Failed,    // the connection broke
    Full,      // the buffer holds kBufferBytes unconsumed: consume some first
  };

  static constexpr size_t kBufferBytes = 1 << 20;

  explicit SocketStream(std::unique_ptr<TcpSocket> socket);
  // Closes the socket.
  ~SocketStream();
  SocketStream(const SocketStream&) = delete;
  SocketStream& operator=(const SocketStream&) = delete;

  // Receives what the peer has sent, at most |most| bytes, waiting up to |timeout| for the first.
  Read fill(std::chrono::milliseconds timeout, size_t most = kBufferBytes);
  // The bytes received and not consumed yet.
  std::string_view buffered() const { return {buffer_.get() + begin_, end_ - begin_}; }
  void consume(size_t bytes);

  // Sends all of |bytes| within |timeout|; false when the connection broke or stalled.
  bool send(std::string_view bytes, std::chrono::milliseconds timeout);

  // Ends the connection after an answer that leaves the request's body unread: stops sending,
  // then reads and drops what the client still sends (up to |drainBytes|, for up to |timeout|)
  // so that closing does not reset the connection before the client has read the answer.
  void lingeringClose(size_t drainBytes, std::chrono::milliseconds timeout);

  // Stops sending: the client reads the end of the answer; receiving goes on.
  void shutdownSending() { socket_->shutdownSending(); }

  // Wakes a read or write blocked on the connection and fails the ones after it.
  void shutdown();

  // The client's IP address; "" when unknown.
  std::string peerAddress() const { return socket_->peerAddress(); }
  // What a SocketPoller watches for this connection.
  int pollHandle() const { return socket_->pollHandle(); }

 private:
  const std::unique_ptr<TcpSocket> socket_;
  std::unique_ptr<char[]> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  std::chrono::milliseconds receiveTimeout_{-1};
  std::chrono::milliseconds sendTimeout_{-1};
};

}  // namespace nembra
