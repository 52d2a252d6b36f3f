// In-process notifications by name (reachability changes and the like). Observers are called on
// the main queue the center was created with.
#pragma once

#include <any>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "nembra/main_queue.h"

namespace nembra {

class NotificationCenter {
 public:
  using Observer = std::function<void(const std::any& object)>;
  using Token = uint64_t;

  explicit NotificationCenter(MainQueue& mainQueue);
  static NotificationCenter& defaultCenter();

  // Returns a token for removeObserver. Safe from any thread.
  Token addObserver(const std::string& name, Observer observer);
  void removeObserver(Token token);
  // Delivers |object| to every observer of |name|, each on the main queue. Safe from any thread;
  // an observer removed before its delivery runs is not called.
  void post(const std::string& name, std::any object);

 private:
  MainQueue& mainQueue_;
  std::mutex mutex_;
  Token nextToken_ = 1;                                          // guarded by mutex_
  std::map<Token, std::pair<std::string, Observer>> observers_;  // guarded by mutex_
};

}  // namespace nembra
