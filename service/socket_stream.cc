#include "service/socket_stream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace nembra {

SocketStream::SocketStream(std::unique_ptr<TcpSocket> socket) : socket_(std::move(socket)) {}

SocketStream::~SocketStream() { socket_->close(); }

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
  // A socket timeout, not a poll() before each read: one system call per block. Set only when
  // it changes, which it rarely does on one connection.
  timeout = std::max(timeout, std::chrono::milliseconds(1));
  if (timeout != receiveTimeout_) {
    if (!socket_->setReceiveTimeout(timeout)) return Read::Failed;
    receiveTimeout_ = timeout;
  }
  size_t room = std::min(kBufferBytes - end_, std::max<size_t>(most, 1));
  TcpIoResult received =
      socket_->receiveSome({reinterpret_cast<uint8_t*>(buffer_.get()) + end_, room});
  switch (received.status) {
    case TcpIoStatus::Ok:
      end_ += received.bytes;
      return Read::Data;
    case TcpIoStatus::Closed:
      return Read::Closed;
    case TcpIoStatus::Failed:
      break;
  }
  return received.error == EAGAIN || received.error == EWOULDBLOCK ? Read::TimedOut : Read::Failed;
}

void SocketStream::consume(size_t bytes) {
  begin_ += std::min(bytes, end_ - begin_);
  if (begin_ == end_) begin_ = end_ = 0;
}

bool SocketStream::send(std::string_view bytes, std::chrono::milliseconds timeout) {
  timeout = std::max(timeout, std::chrono::milliseconds(1));
  if (timeout != sendTimeout_) {
    if (!socket_->setSendTimeout(timeout)) return false;
    sendTimeout_ = timeout;
  }
  const std::span<const uint8_t> buffers[] = {
      {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}};
  return socket_->sendAll(buffers).status == TcpIoStatus::Ok;
}

void SocketStream::lingeringClose(size_t drainBytes, std::chrono::milliseconds timeout) {
  socket_->shutdownSending();
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

void SocketStream::shutdown() { socket_->shutdown(); }

}  // namespace nembra
