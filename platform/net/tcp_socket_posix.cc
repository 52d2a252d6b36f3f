#include "platform/net/tcp_socket_posix.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace nembra {

namespace {

// The kernel's limit on buffers per gathered write (UIO_MAXIOV).
constexpr size_t kMaxBuffersPerCall = 1024;

timeval ToTimeval(std::chrono::milliseconds duration) {
  const auto ms = std::max<int64_t>(duration.count(), 0);
  return timeval{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>((ms % 1000) * 1000)};
}

int ToPollTimeout(std::chrono::milliseconds duration) {
  return static_cast<int>(std::clamp<int64_t>(duration.count(), 0, INT32_MAX));
}

bool ConnectWithTimeout(int fd, const sockaddr_in& address, std::chrono::milliseconds timeout) {
  const int flags = ::fcntl(fd, F_GETFL, 0);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    return false;
  }
  int rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  if (rc < 0 && errno != EINPROGRESS) {
    return false;
  }
  if (rc < 0) {
    pollfd waiter{fd, POLLOUT, 0};
    do {
      rc = ::poll(&waiter, 1, ToPollTimeout(timeout));
    } while (rc < 0 && errno == EINTR);
    if (rc <= 0) {
      return false;
    }
    int error = 0;
    socklen_t length = sizeof(error);
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) < 0 || error != 0) {
      return false;
    }
  }
  return ::fcntl(fd, F_SETFL, flags) == 0;
}

}  // namespace

size_t tcpSkipSentBytes(std::span<iovec> buffers, size_t first, size_t sent) {
  while (first < buffers.size() && sent >= buffers[first].iov_len) {
    sent -= buffers[first].iov_len;
    ++first;
  }
  if (first < buffers.size() && sent > 0) {
    buffers[first].iov_base = static_cast<uint8_t*>(buffers[first].iov_base) + sent;
    buffers[first].iov_len -= sent;
  }
  return first;
}

std::unique_ptr<TcpSocket> createTcpSocket() { return std::make_unique<TcpSocketPosix>(); }

TcpSocketPosix::TcpSocketPosix() : wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

TcpSocketPosix::TcpSocketPosix(int connectedFd) : TcpSocketPosix() { fd_.store(connectedFd); }

TcpSocketPosix::~TcpSocketPosix() {
  close();
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

TcpConnectStatus TcpSocketPosix::connect(const std::string& host, uint16_t port,
                                         const TcpTimeouts& timeouts) {
  close();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    nameLookups_.fetch_add(1, std::memory_order_relaxed);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (host.empty() || ::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found) {
      return TcpConnectStatus::UnknownHost;
    }
    address.sin_addr = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    ::freeaddrinfo(found);
  }

  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return TcpConnectStatus::SocketFailed;
  }
  const int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  const timeval sendTimeout = ToTimeval(timeouts.send);
  const timeval receiveTimeout = ToTimeval(timeouts.receive);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof(sendTimeout));
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receiveTimeout, sizeof(receiveTimeout));
  if (!ConnectWithTimeout(fd, address, timeouts.connect)) {
    ::close(fd);
    return TcpConnectStatus::ConnectFailed;
  }
  fd_.store(fd);
  return TcpConnectStatus::Connected;
}

TcpIoResult TcpSocketPosix::sendAll(std::span<const std::span<const uint8_t>> buffers) {
  std::vector<iovec> pending;
  pending.reserve(buffers.size());
  for (const auto& buffer : buffers) {
    if (!buffer.empty()) {
      pending.push_back({const_cast<uint8_t*>(buffer.data()), buffer.size()});
    }
  }
  TcpIoResult result;
  size_t first = 0;
  while (first < pending.size()) {
    msghdr message{};
    message.msg_iov = pending.data() + first;
    message.msg_iovlen = std::min(pending.size() - first, kMaxBuffersPerCall);
    sendCalls_.fetch_add(1, std::memory_order_relaxed);
    const ssize_t sent = ::sendmsg(fd_.load(), &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) {
      continue;
    }
    if (sent < 0) {
      result.status = TcpIoStatus::Failed;
      result.error = errno;
      return result;
    }
    if (sent == 0) {
      result.status = TcpIoStatus::Closed;
      return result;
    }
    result.bytes += static_cast<size_t>(sent);
    first = tcpSkipSentBytes(pending, first, static_cast<size_t>(sent));
  }
  return result;
}

TcpIoResult TcpSocketPosix::receiveSome(std::span<uint8_t> buffer) {
  TcpIoResult result;
  ssize_t received;
  do {
    receiveCalls_.fetch_add(1, std::memory_order_relaxed);
    received = ::recv(fd_.load(), buffer.data(), buffer.size(), 0);
  } while (received < 0 && errno == EINTR);
  if (received < 0) {
    result.status = TcpIoStatus::Failed;
    result.error = errno;
  } else if (received == 0 && !buffer.empty()) {
    result.status = TcpIoStatus::Closed;
  } else {
    result.bytes = static_cast<size_t>(received);
  }
  return result;
}

TcpIoResult TcpSocketPosix::receiveAll(std::span<uint8_t> buffer) {
  TcpIoResult total;
  while (total.bytes < buffer.size()) {
    const TcpIoResult step = receiveSome(buffer.subspan(total.bytes));
    total.bytes += step.bytes;
    if (step.status != TcpIoStatus::Ok) {
      total.status = step.status;
      total.error = step.error;
      return total;
    }
  }
  return total;
}

bool TcpSocketPosix::waitReadable(std::chrono::milliseconds timeout) {
  pollfd waiters[2] = {{fd_.load(), POLLIN, 0}, {wakeFd_, POLLIN, 0}};
  pollCalls_.fetch_add(1, std::memory_order_relaxed);
  const int rc = ::poll(waiters, wakeFd_ >= 0 ? 2 : 1, ToPollTimeout(timeout));
  if (rc > 0 && (waiters[1].revents & POLLIN)) {
    uint64_t signals = 0;
    [[maybe_unused]] ssize_t drained = ::read(wakeFd_, &signals, sizeof signals);
    return false;
  }
  // An interrupted wait counts as a timeout: callers wait in a loop.
  return rc > 0;
}

void TcpSocketPosix::interruptWait() {
  if (wakeFd_ < 0) return;
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t written = ::write(wakeFd_, &one, sizeof one);
}

size_t TcpSocketPosix::bytesAvailable() {
  int available = 0;
  if (::ioctl(fd_.load(), FIONREAD, &available) < 0 || available < 0) {
    return 0;
  }
  return static_cast<size_t>(available);
}

bool TcpSocketPosix::setReceiveTimeout(std::chrono::milliseconds timeout) {
  const timeval value = ToTimeval(std::max(timeout, std::chrono::milliseconds(1)));
  return ::setsockopt(fd_.load(), SOL_SOCKET, SO_RCVTIMEO, &value, sizeof(value)) == 0;
}

bool TcpSocketPosix::setSendTimeout(std::chrono::milliseconds timeout) {
  const timeval value = ToTimeval(std::max(timeout, std::chrono::milliseconds(1)));
  return ::setsockopt(fd_.load(), SOL_SOCKET, SO_SNDTIMEO, &value, sizeof(value)) == 0;
}

void TcpSocketPosix::shutdownSending() { ::shutdown(fd_.load(), SHUT_WR); }

void TcpSocketPosix::shutdown() { ::shutdown(fd_.load(), SHUT_RDWR); }

void TcpSocketPosix::close() {
  const int fd = fd_.exchange(-1);
  if (fd >= 0) {
    ::close(fd);
  }
}

bool TcpSocketPosix::isOpen() const { return fd_.load() >= 0; }

std::string TcpSocketPosix::peerAddress() const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getpeername(fd_.load(), reinterpret_cast<sockaddr*>(&address), &length) != 0) return "";
  char text[INET6_ADDRSTRLEN] = {};
  const void* raw =
      address.ss_family == AF_INET6
          ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr)
          : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(&address)->sin_addr);
  if (!::inet_ntop(address.ss_family, raw, text, sizeof text)) return "";
  return text;
}

TcpSocketCounters TcpSocketPosix::counters() const {
  return {sendCalls_.load(std::memory_order_relaxed), receiveCalls_.load(std::memory_order_relaxed),
          pollCalls_.load(std::memory_order_relaxed), nameLookups_.load(std::memory_order_relaxed)};
}

}  // namespace nembra
