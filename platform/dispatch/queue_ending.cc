#include "platform/dispatch/queue_ending.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <vector>

namespace nembra {
namespace {

struct Registry {
  std::mutex mutex;
  std::condition_variable finished;
  std::map<QueueEnding::Token, std::pair<const TaskQueue*, std::function<void()>>> actions;
  std::vector<QueueEnding::Token> running;
  QueueEnding::Token next = 1;
};

Registry& registry() {
  // Never destroyed: a queue with static storage may end after any other static.
  static Registry* instance = new Registry;
  return *instance;
}

}  // namespace

QueueEnding::Token QueueEnding::add(const TaskQueue& queue, std::function<void()> action) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  const Token token = r.next++;
  r.actions.emplace(token, std::make_pair(&queue, std::move(action)));
  return token;
}

void QueueEnding::remove(Token token) {
  Registry& r = registry();
  std::unique_lock lock(r.mutex);
  r.actions.erase(token);
  r.finished.wait(lock, [&] {
    return std::find(r.running.begin(), r.running.end(), token) == r.running.end();
  });
}

void QueueEnding::run(const TaskQueue& queue) {
  Registry& r = registry();
  std::vector<std::pair<Token, std::function<void()>>> due;
  {
    std::lock_guard lock(r.mutex);
    for (auto it = r.actions.begin(); it != r.actions.end();) {
      if (it->second.first == &queue) {
        due.emplace_back(it->first, std::move(it->second.second));
        r.running.push_back(it->first);
        it = r.actions.erase(it);
      } else {
        ++it;
      }
    }
  }
  // Unlocked: an action may add or remove others.
  for (auto& [token, action] : due) {
    action();
    std::lock_guard lock(r.mutex);
    std::erase(r.running, token);
    r.finished.notify_all();
  }
}

}  // namespace nembra
