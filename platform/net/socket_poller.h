// Waits on many sockets at once for input: how one thread watches every connection that has
// not sent a whole request yet, instead of one thread blocked per connection.
//
// Threading: watch(), forget() and wait() on the one thread that owns the poller; wake() from
// any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace nembra {

class SocketPoller {
 public:
  // Null when the system has no poller to give.
  static std::unique_ptr<SocketPoller> create();
  ~SocketPoller();
  SocketPoller(const SocketPoller&) = delete;
  SocketPoller& operator=(const SocketPoller&) = delete;

  // Reports |handle| (a TcpSocket's pollHandle()) under |key| while it has input, an end of
  // stream or an error pending, until forget().
  bool watch(int handle, uint64_t key);
  // REQUIRES: |handle| is still open.
  void forget(int handle);
  // Waits up to |timeout| for watched sockets with input or for wake(), and puts the keys of
  // the ready ones in |ready| (empty after a timeout or a wake).
  void wait(std::chrono::milliseconds timeout, std::vector<uint64_t>& ready);
  // Ends a wait() in progress, or makes the next one return at once.
  void wake();

 private:
  SocketPoller(int pollFd, int wakeFd) : pollFd_(pollFd), wakeFd_(wakeFd) {}

  const int pollFd_;
  const int wakeFd_;
};

}  // namespace nembra
