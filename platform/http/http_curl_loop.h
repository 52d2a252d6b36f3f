// The network thread "com.nembra.network": one curl multi handle that drives every transfer of
// a client, and the serial queue "com.nembra.network.callbacks" on which all task events are
// delivered, so slow callbacks never stall the transfers.
//
// Threading: start/setPaused/cancel may be called from any thread; they post to the network
// thread. deliver() is for the network thread. shutdown() must be called once, from outside
// both threads, before the loop is released.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "platform/dispatch/serial_queue.h"

namespace nembra {

class CurlTransfer;

class CurlMultiLoop {
 public:
  CurlMultiLoop();
  ~CurlMultiLoop();
  CurlMultiLoop(const CurlMultiLoop&) = delete;
  CurlMultiLoop& operator=(const CurlMultiLoop&) = delete;

  // Adds the transfer to the multi handle, or completes it at once when it cannot start.
  void start(std::shared_ptr<CurlTransfer> transfer);
  void setPaused(std::shared_ptr<CurlTransfer> transfer, bool paused);
  // Aborts a running transfer, or completes one that never started; a Cancelled error either
  // way. Does nothing to a transfer that has already completed.
  void cancel(std::shared_ptr<CurlTransfer> transfer);

  // Runs |event| on the callback queue, unless shutdown() has begun by then. Network thread.
  void deliver(std::function<void()> event);

  // Stops the network thread, dropping running transfers without reporting them, then waits
  // for the callback running now (if any) and drops those still queued.
  void shutdown();

 private:
  void post(std::function<void()> command);
  void run();
  void collectFinished();
  void detach(CURL* easy);

  CURLM* const multi_;
  std::mutex mutex_;
  std::deque<std::function<void()>> commands_;  // guarded by mutex_
  bool stopping_ = false;                       // guarded by mutex_
  // Transfers in the multi handle; network thread only.
  std::unordered_map<CURL*, std::shared_ptr<CurlTransfer>> active_;

  std::atomic<bool> delivering_{true};
  std::unique_ptr<SerialQueue> callbacks_;
  std::thread thread_;
};

}  // namespace nembra
