#include "platform/net/tcp_listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/net/tcp_socket_posix.h"

namespace nembra {
namespace {

int boundPort(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return -1;
  if (address.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
  }
  if (address.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
  }
  return -1;
}

}  // namespace

std::unique_ptr<TcpListener> TcpListener::open(const std::string& host, int port,
                                               OptionalError& error) {
  auto failure = [&](const std::string& why) {
    error = Error::transport("cannot listen on " + host + ":" + std::to_string(port) + " (" + why +
                             ")");
    return nullptr;
  };
  if (port < 0 || port > 65535) return failure("not a port");
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  std::string service = std::to_string(port);
  int resolved =
      ::getaddrinfo(host.empty() ? nullptr : host.c_str(), service.c_str(), &hints, &found);
  if (resolved != 0) return failure(::gai_strerror(resolved));
  std::string why = "not an address here";
  int fd = -1;
  for (addrinfo* candidate = found; candidate && fd < 0; candidate = candidate->ai_next) {
    fd = ::socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC,
                  candidate->ai_protocol);
    if (fd < 0) continue;
    int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    if (::bind(fd, candidate->ai_addr, candidate->ai_addrlen) != 0 ||
        ::listen(fd, SOMAXCONN) != 0) {
      why = std::strerror(errno);
      ::close(fd);
      fd = -1;
    }
  }
  ::freeaddrinfo(found);
  if (fd < 0) return failure(why);
  int bound = boundPort(fd);
  if (bound <= 0) {
    ::close(fd);
    return failure("the bound port cannot be read");
  }
  return std::unique_ptr<TcpListener>(new TcpListener(fd, bound));
}

TcpListener::~TcpListener() { ::close(fd_); }

std::unique_ptr<TcpSocket> TcpListener::accept() {
  while (!shutDown_) {
    int connection = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection >= 0) {
      int yes = 1;
      ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
      return std::make_unique<TcpSocketPosix>(connection);
    }
    if (shutDown_) break;
    if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) continue;
    // Out of descriptors or memory: connections wait in the backlog until some are freed.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return nullptr;
}

void TcpListener::shutdown() {
  shutDown_ = true;
  // Wakes a blocked accept(), which then fails.
  ::shutdown(fd_, SHUT_RDWR);
}

}  // namespace nembra
