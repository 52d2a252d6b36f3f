#include "platform/http/http_curl_loop.h"

#include "platform/dispatch/thread_name.h"
#include "platform/http/http_curl_transfer.h"

namespace nembra {

namespace {

// How long the network thread sleeps with nothing to do; new work wakes it at once.
constexpr int kIdlePollMs = 1000;

CURLM* createMulti() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  return curl_multi_init();
}

}  // namespace

CurlMultiLoop::CurlMultiLoop()
    : multi_(createMulti()),
      callbacks_(std::make_unique<SerialQueue>("com.nembra.network.callbacks")),
      thread_([this] { run(); }) {}

CurlMultiLoop::~CurlMultiLoop() {
  // shutdown() has joined the thread; this only covers an owner that forgot to call it.
  if (thread_.joinable()) shutdown();
}

void CurlMultiLoop::start(std::shared_ptr<CurlTransfer> transfer) {
  post([this, transfer = std::move(transfer)] {
    if (transfer->completed()) return;
    OptionalError error;
    CURL* easy = transfer->open(*this, error);
    if (!easy) {
      transfer->fail(std::move(*error));
      return;
    }
    if (CURLMcode code = curl_multi_add_handle(multi_, easy); code != CURLM_OK) {
      transfer->release();
      transfer->fail(
          Error::internal(std::string("cannot add a transfer: ") + curl_multi_strerror(code)));
      return;
    }
    active_.emplace(easy, transfer);
  });
}

void CurlMultiLoop::setPaused(std::shared_ptr<CurlTransfer> transfer, bool paused) {
  post([this, transfer = std::move(transfer), paused] {
    for (const auto& [easy, active] : active_) {
      if (active == transfer) {
        curl_easy_pause(easy, paused ? CURLPAUSE_ALL : CURLPAUSE_CONT);
        return;
      }
    }
  });
}

void CurlMultiLoop::cancel(std::shared_ptr<CurlTransfer> transfer) {
  post([this, transfer = std::move(transfer)] {
    for (const auto& [easy, active] : active_) {
      if (active == transfer) {
        detach(easy);
        break;
      }
    }
    transfer->fail(Error::cancelled("cancelled: " + transfer->originalRequest().method + " " +
                                    transfer->originalRequest().url));
  });
}

void CurlMultiLoop::deliver(std::function<void()> event) {
  callbacks_->async([this, event = std::move(event)] {
    if (delivering_.load()) event();
  });
}

void CurlMultiLoop::shutdown() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
  }
  curl_multi_wakeup(multi_);
  if (thread_.joinable()) thread_.join();
  {
    std::lock_guard lock(mutex_);
    commands_.clear();
  }
  delivering_.store(false);
  callbacks_.reset();
  curl_multi_cleanup(multi_);
}

void CurlMultiLoop::post(std::function<void()> command) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    commands_.push_back(std::move(command));
  }
  curl_multi_wakeup(multi_);
}

void CurlMultiLoop::run() {
  setCurrentThreadName("com.nembra.network");
  for (;;) {
    std::deque<std::function<void()>> commands;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) break;
      commands.swap(commands_);
    }
    for (auto& command : commands) command();
    int running = 0;
    curl_multi_perform(multi_, &running);
    collectFinished();
    curl_multi_poll(multi_, nullptr, 0, kIdlePollMs, nullptr);
  }
  while (!active_.empty()) detach(active_.begin()->first);
}

void CurlMultiLoop::collectFinished() {
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    auto found = active_.find(message->easy_handle);
    if (found == active_.end()) continue;
    std::shared_ptr<CurlTransfer> transfer = found->second;
    CURLcode result = message->data.result;
    // The message points into the handle; read it before the handle is freed.
    transfer->finish(result);
    detach(message->easy_handle);
  }
}

void CurlMultiLoop::detach(CURL* easy) {
  auto found = active_.find(easy);
  if (found == active_.end()) return;
  std::shared_ptr<CurlTransfer> transfer = std::move(found->second);
  active_.erase(found);
  curl_multi_remove_handle(multi_, easy);
  transfer->release();
}

}  // namespace nembra
