#include "platform/net/socket_poller.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

namespace nembra {
namespace {

constexpr uint64_t kWakeKey = std::numeric_limits<uint64_t>::max();
constexpr int kMaxEvents = 256;

}  // namespace

std::unique_ptr<SocketPoller> SocketPoller::create() {
  int pollFd = ::epoll_create1(EPOLL_CLOEXEC);
  if (pollFd < 0) return nullptr;
  int wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kWakeKey;
  if (wakeFd < 0 || ::epoll_ctl(pollFd, EPOLL_CTL_ADD, wakeFd, &event) != 0) {
    if (wakeFd >= 0) ::close(wakeFd);
    ::close(pollFd);
    return nullptr;
  }
  return std::unique_ptr<SocketPoller>(new SocketPoller(pollFd, wakeFd));
}

SocketPoller::~SocketPoller() {
  ::close(wakeFd_);
  ::close(pollFd_);
}

bool SocketPoller::watch(int handle, uint64_t key) {
  if (handle < 0 || key == kWakeKey) return false;
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP;
  event.data.u64 = key;
  return ::epoll_ctl(pollFd_, EPOLL_CTL_ADD, handle, &event) == 0;
}

void SocketPoller::forget(int handle) {
  epoll_event unused{};
  ::epoll_ctl(pollFd_, EPOLL_CTL_DEL, handle, &unused);
}

void SocketPoller::wait(std::chrono::milliseconds timeout, std::vector<uint64_t>& ready) {
  ready.clear();
  epoll_event events[kMaxEvents];
  auto ms = std::clamp<int64_t>(timeout.count(), 0, std::numeric_limits<int>::max());
  int count = ::epoll_wait(pollFd_, events, kMaxEvents, static_cast<int>(ms));
  for (int i = 0; i < count; ++i) {
    if (events[i].data.u64 == kWakeKey) {
      uint64_t signals = 0;
      [[maybe_unused]] ssize_t drained = ::read(wakeFd_, &signals, sizeof signals);
      continue;
    }
    ready.push_back(events[i].data.u64);
  }
}

void SocketPoller::wake() {
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t written = ::write(wakeFd_, &one, sizeof one);
}

}  // namespace nembra
