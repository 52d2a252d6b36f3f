#include "streaming/network_connection.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace nembra {

namespace {}  // namespace

void NetworkConnection::FailReceive(const TcpIoResult& result) {
  if (result.status == TcpIoStatus::Failed && result.error != 0) {
    receiveFailureCause_ = result.error == EAGAIN || result.error == EWOULDBLOCK
                               ? "the server sent nothing within the receive timeout"
                               : std::string("receiving failed: ") + std::strerror(result.error);
  } else {
    receiveFailureCause_ = "the server closed the connection";
  }
  // Kept as it is spelled: log readers match on it.
  throw std::runtime_error("netowrk recv data failed");
}

NetworkConnection::NetworkConnection() : NetworkConnection(createTcpSocket()) {}

NetworkConnection::NetworkConnection(std::unique_ptr<TcpSocket> socket)
    : socket_(std::move(socket)) {}

NetworkConnection::~NetworkConnection() { Close(); }

void NetworkConnection::Connect(const std::string& host, uint16_t port) {
  switch (socket_->connect(host, port, timeouts_)) {
    case TcpConnectStatus::Connected:
      return;
    case TcpConnectStatus::UnknownHost:
      throw std::runtime_error("unknown host: " + host);
    case TcpConnectStatus::SocketFailed:
      throw std::runtime_error("can't open socket");
    case TcpConnectStatus::ConnectFailed:
      break;
  }
  throw std::runtime_error("can't connect socket");
}

void NetworkConnection::Send(const uint8_t* buffer, size_t size) {
  const std::span<const uint8_t> single(buffer, size);
  Send(std::span<const std::span<const uint8_t>>(&single, 1));
}

void NetworkConnection::Send(std::span<const std::span<const uint8_t>> buffers) {
  if (socket_->sendAll(buffers).status == TcpIoStatus::Closed) {
    throw std::runtime_error("network send data failed");
  }
}

void NetworkConnection::Receive(uint8_t* buffer, size_t size) {
  const TcpIoResult result = socket_->receiveAll({buffer, size});
  if (result.status != TcpIoStatus::Ok) FailReceive(result);
}

size_t NetworkConnection::ReceiveSome(uint8_t* buffer, size_t capacity) {
  const TcpIoResult result = socket_->receiveSome({buffer, capacity});
  if (result.status != TcpIoStatus::Ok || (result.bytes == 0 && capacity > 0)) {
    FailReceive(result);
  }
  return result.bytes;
}

bool NetworkConnection::WaitForData(std::chrono::milliseconds timeout) {
  return socket_->waitReadable(timeout);
}

size_t NetworkConnection::DataSizeInReceiveBuffer() { return socket_->bytesAvailable(); }

void NetworkConnection::Close() { socket_->close(); }

void NetworkConnection::InterruptWait() { socket_->interruptWait(); }

bool NetworkConnection::IsOpen() const { return socket_->isOpen(); }

}  // namespace nembra
