#include "platform/system/notification_center.h"

#include <vector>

namespace nembra {

NotificationCenter::NotificationCenter(MainQueue& mainQueue) : mainQueue_(mainQueue) {}

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter center(MainQueue::shared());
  return center;
}

NotificationCenter::Token NotificationCenter::addObserver(const std::string& name,
                                                          Observer observer) {
  std::lock_guard lock(mutex_);
  Token token = nextToken_++;
  observers_.emplace(token, std::make_pair(name, std::move(observer)));
  return token;
}

void NotificationCenter::removeObserver(Token token) {
  std::lock_guard lock(mutex_);
  observers_.erase(token);
}

void NotificationCenter::post(const std::string& name, std::any object) {
  std::vector<Token> targets;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [token, entry] : observers_) {
      if (entry.first == name) targets.push_back(token);
    }
  }
  for (Token token : targets) {
    mainQueue_.async([this, token, object] {
      Observer observer;
      {
        std::lock_guard lock(mutex_);
        auto it = observers_.find(token);
        if (it == observers_.end()) return;
        observer = it->second.second;
      }
      observer(object);
    });
  }
}

}  // namespace nembra
