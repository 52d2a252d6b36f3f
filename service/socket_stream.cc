#include "service/socket_stream.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace nembra {

SocketStream::SocketStream(int fd) : fd_(fd) {}

SocketStream::~SocketStream() { ::close(fd_); }

bool SocketStream::setTimeout(int option, std::chrono::milliseconds timeout) {
  // A zero timeout would mean none at all.
  timeout = std::max(timeout, std::chrono::milliseconds(1));
  auto& current = option == SO_RCVTIMEO ? receiveTimeout_ : sendTimeout_;
  if (current == timeout) return true;
  timeval value{};
  value.tv_sec = static_cast<time_t>(timeout.count() / 1000);
  value.tv_usec = static_cast<suseconds_t>(timeout.count() % 1000 * 1000);
  if (::setsockopt(fd_, SOL_SOCKET, option, &value, sizeof(value)) != 0) return false;
  current = timeout;
  return true;
}

SocketStream::Read SocketStream::fill(std::chrono::milliseconds timeout, size_t most) {
  // Allocated on first use: an idle connection costs no buffer.
  if (!buffer_) buffer_.reset(new char[kBufferBytes]);
  if (begin_ == end_) {
    begin_ = end_ = 0;
  } else if (end_ == kBufferBytes) {
    if (begin_ == 0) return Read::Full;
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  // A socket timeout, not a poll() before each read: one system call per block.
  if (!setTimeout(SO_RCVTIMEO, timeout)) return Read::Failed;
  size_t room = std::min(kBufferBytes - end_, std::max<size_t>(most, 1));
  for (;;) {
    ssize_t received = ::recv(fd_, buffer_.get() + end_, room, 0);
    if (received > 0) {
      end_ += static_cast<size_t>(received);
      return Read::Data;
    }
    if (received == 0) return Read::Closed;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return Read::TimedOut;
    return Read::Failed;
  }
}

void SocketStream::consume(size_t bytes) {
  begin_ += std::min(bytes, end_ - begin_);
  if (begin_ == end_) begin_ = end_ = 0;
}

bool SocketStream::send(std::string_view bytes, std::chrono::milliseconds timeout) {
  if (!setTimeout(SO_SNDTIMEO, timeout)) return false;
  while (!bytes.empty()) {
    ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

void SocketStream::lingeringClose(size_t drainBytes, std::chrono::milliseconds timeout) {
  ::shutdown(fd_, SHUT_WR);
  auto deadline = std::chrono::steady_clock::now() + timeout;
  size_t drained = 0;
  while (drained < drainBytes) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    consume(end_ - begin_);
    if (fill(left) != Read::Data) break;
    drained += end_ - begin_;
  }
  consume(end_ - begin_);
}

void SocketStream::shutdown() { ::shutdown(fd_, SHUT_RDWR); }

}  // namespace nembra
