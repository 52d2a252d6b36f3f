#include "platform/system/local_notifications.h"

#include <cstdio>

namespace nembra {

LocalNotifications::LocalNotifications(MainQueue& mainQueue)
    : mainQueue_(mainQueue), sink_([](const LocalNotification& n) {
        std::fprintf(stderr, "notification: %s: %s\n", n.title.c_str(), n.body.c_str());
      }) {}

LocalNotifications& LocalNotifications::shared() {
  static LocalNotifications instance(MainQueue::shared());
  return instance;
}

void LocalNotifications::schedule(LocalNotification notification, std::chrono::milliseconds delay,
                                  bool repeats) {
  auto fire = [this, notification] { deliver(notification); };
  auto timer =
      repeats ? Timer::repeating(mainQueue_, delay, fire) : Timer::oneShot(mainQueue_, delay, fire);
  std::lock_guard lock(mutex_);
  // Drop one-shot timers that have fired so a long-lived process does not accumulate them.
  std::erase_if(timers_, [](const auto& t) { return !t->isValid(); });
  timers_.push_back(std::move(timer));
}

void LocalNotifications::cancelAll() {
  std::lock_guard lock(mutex_);
  timers_.clear();
}

void LocalNotifications::setSink(Sink sink) {
  std::lock_guard lock(mutex_);
  sink_ = std::move(sink);
}

void LocalNotifications::deliver(const LocalNotification& notification) {
  Sink sink;
  {
    std::lock_guard lock(mutex_);
    sink = sink_;
  }
  if (sink) sink(notification);
}

}  // namespace nembra
