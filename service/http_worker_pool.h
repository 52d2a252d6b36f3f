// The threads that serve HTTP connections: one connection per thread while it is open, so the
// pool grows on demand up to a limit instead of holding a fixed number of threads. Threads are
// named "<name>.<n>".
//
// Threading: enqueue() from the server's accept thread; shutdown() once, from its owner.
#pragma once

#include <httplib.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nembra {

class HttpWorkerPool final : public httplib::TaskQueue {
 public:
  HttpWorkerPool(std::string name, size_t maxThreads);
  ~HttpWorkerPool() override;

  void enqueue(std::function<void()> task) override;
  // Finishes the queued connections, then joins every thread.
  void shutdown() override;

 private:
  void loop(size_t index);

  const std::string name_;
  const size_t maxThreads_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;  // guarded by mutex_
  std::vector<std::thread> threads_;         // guarded by mutex_
  size_t idle_ = 0;                          // guarded by mutex_
  bool stopping_ = false;                    // guarded by mutex_
};

}  // namespace nembra
