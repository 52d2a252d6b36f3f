#include "service/background_data_flusher.h"

#include <unistd.h>

#include <cerrno>

#include "platform/dispatch/thread_name.h"

namespace nembra {

BackgroundDataFlusher::BackgroundDataFlusher(int fd) : fd_(fd), thread_([this] { run(); }) {}

BackgroundDataFlusher::~BackgroundDataFlusher() { stop(); }

void BackgroundDataFlusher::progress() {
  {
    std::lock_guard lock(mutex_);
    pending_ = true;
  }
  wake_.notify_one();
}

int BackgroundDataFlusher::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
  std::lock_guard lock(mutex_);
  return error_;
}

void BackgroundDataFlusher::run() {
  setCurrentThreadName("nembra-flush");
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return pending_ || stopping_; });
    if (!pending_) return;  // stopping, with nothing asked for
    pending_ = false;
    lock.unlock();
    int result = ::fdatasync(fd_);
    int code = result == 0 ? 0 : errno;
    lock.lock();
    if (code != 0 && error_ == 0) error_ = code;
  }
}

}  // namespace nembra
