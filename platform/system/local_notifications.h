// User-visible local notifications. Linux has no single notification service an SDK can rely on,
// so delivery goes to a sink the host observes (a desktop app can forward to its notifier); the
// default sink writes "notification: TITLE: BODY" to standard error.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "nembra/main_queue.h"
#include "platform/dispatch/timer.h"

namespace nembra {

struct LocalNotification {
  std::string title;
  std::string body;
};

class LocalNotifications {
 public:
  using Sink = std::function<void(const LocalNotification&)>;

  explicit LocalNotifications(MainQueue& mainQueue);
  static LocalNotifications& shared();

  // Delivers the notification to the sink on the main queue after |delay| (repeating every
  // |delay| when |repeats|). Safe from any thread.
  void schedule(LocalNotification notification, std::chrono::milliseconds delay, bool repeats);
  // Cancels every scheduled notification.
  void cancelAll();

  void setSink(Sink sink);

 private:
  void deliver(const LocalNotification& notification);

  MainQueue& mainQueue_;
  std::mutex mutex_;
  Sink sink_;                                   // guarded by mutex_
  std::vector<std::unique_ptr<Timer>> timers_;  // guarded by mutex_
};

}  // namespace nembra
