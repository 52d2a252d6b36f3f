#include "platform/files/directory_watcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/dispatch/thread_name.h"
#include "platform/files/inotify_events.h"

namespace nembra {

std::unique_ptr<DirectoryWatcher> DirectoryWatcher::start(const std::string& directory,
                                                          OnChange onChange, OptionalError& error) {
  const int inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (inotify < 0) {
    error = Error::file("cannot watch " + directory + ": " + std::strerror(errno), errno);
    return nullptr;
  }
  // A file written in place is ready when closed; one renamed in is ready when it arrives.
  if (inotify_add_watch(inotify, directory.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
    const int code = errno;
    ::close(inotify);
    error = Error::file("cannot watch " + directory + ": " + std::strerror(code), code);
    return nullptr;
  }
  const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake < 0) {
    const int code = errno;
    ::close(inotify);
    error = Error::file("cannot watch " + directory + ": " + std::strerror(code), code);
    return nullptr;
  }
  std::unique_ptr<DirectoryWatcher> watcher(
      new DirectoryWatcher(directory, std::move(onChange), inotify, wake));
  watcher->thread_ = std::thread([w = watcher.get()] { w->run(); });
  return watcher;
}

DirectoryWatcher::DirectoryWatcher(std::string directory, OnChange onChange, int inotify, int wake)
    : directory_(std::move(directory)),
      onChange_(std::move(onChange)),
      inotify_(inotify),
      wake_(wake) {}

DirectoryWatcher::~DirectoryWatcher() {
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t written = ::write(wake_, &one, sizeof one);
  if (thread_.joinable()) thread_.join();
  ::close(inotify_);
  ::close(wake_);
}

void DirectoryWatcher::run() {
  setCurrentThreadName("com.nembra.directoryWatcher");
  alignas(inotify_event) uint8_t buffer[4096];
  for (;;) {
    pollfd fds[2] = {{inotify_, POLLIN, 0}, {wake_, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    const ssize_t length = ::read(inotify_, buffer, sizeof buffer);
    if (length <= 0) continue;
    const std::span<const uint8_t> events(buffer, static_cast<size_t>(length));
    for (const std::string& name : InotifyEvents::names(events)) {
      if (onChange_) onChange_(name);
    }
  }
}

}  // namespace nembra
