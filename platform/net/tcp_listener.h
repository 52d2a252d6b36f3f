// A listening TCP socket: bound with SO_REUSEADDR (a restart must not wait for the old
// connections' TIME_WAIT, and no second server may share the port), listening with the
// system's largest backlog so that a burst of connections waits in the kernel instead of
// being refused or retried by the clients.
//
// Threading: open() and the destructor on the owner thread; accept() on the one accept thread;
// shutdown() from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "nembra/error.h"
#include "platform/net/tcp_socket.h"

namespace nembra {

class TcpListener {
 public:
  // Listens on |host| (a name or an address) at |port|, a free port when 0. Null with a
  // transport |error| when it cannot.
  static std::unique_ptr<TcpListener> open(const std::string& host, int port, OptionalError& error);
  ~TcpListener();
  TcpListener(const TcpListener&) = delete;
  TcpListener& operator=(const TcpListener&) = delete;

  int port() const { return port_; }
  // Waits for the next connection: its socket, with TCP_NODELAY set; null once shut down.
  std::unique_ptr<TcpSocket> accept();
  // Makes accept() return null, now and from then on.
  void shutdown();

 private:
  TcpListener(int fd, int port) : fd_(fd), port_(port) {}

  const int fd_;
  const int port_;
  std::atomic<bool> shutDown_{false};
};

}  // namespace nembra
