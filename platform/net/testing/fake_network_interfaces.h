// A NetworkInterfaceSource for tests: the snapshot is whatever the test sets, and change()
// notifies the watcher as the netlink thread would.
//
// Threading: any thread; the watcher is called on the thread that calls change().
#pragma once

#include <functional>
#include <mutex>
#include <utility>

#include "platform/net/network_interfaces.h"

namespace nembra {

class FakeNetworkInterfaces : public NetworkInterfaceSource {
 public:
  explicit FakeNetworkInterfaces(NetworkSnapshot initial = {}) : current_(std::move(initial)) {}

  NetworkSnapshot snapshot() override {
    std::lock_guard lock(mutex_);
    return current_;
  }
  void startWatching(std::function<void()> onChange) override {
    std::lock_guard lock(mutex_);
    watcher_ = std::move(onChange);
  }
  void stopWatching() override {
    std::lock_guard lock(mutex_);
    watcher_ = nullptr;
  }

  // Replaces the snapshot without telling the watcher (a state found at the next look).
  void set(NetworkSnapshot next) {
    std::lock_guard lock(mutex_);
    current_ = std::move(next);
  }
  // Replaces the snapshot and tells the watcher, outside the lock.
  void change(NetworkSnapshot next) {
    std::function<void()> notify;
    {
      std::lock_guard lock(mutex_);
      current_ = std::move(next);
      notify = watcher_;
    }
    if (notify) notify();
  }

  // Interfaces that are up with an IPv4 address.
  static NetworkInterface wired() { return {"eth0", true, false, false, true, false, false}; }
  static NetworkInterface cellular() { return {"wwan0", true, false, true, true, false, false}; }

 private:
  std::mutex mutex_;
  NetworkSnapshot current_;
  std::function<void()> watcher_;
};

}  // namespace nembra
