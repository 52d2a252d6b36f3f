// A MediaByteSource over a local file that can be told to stall: once |stallAfter| bytes have
// been read, every read blocks until cancel(), as a loader waiting on a dead network would.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <limits>
#include <mutex>
#include <string>

#include "platform/media/media_player_engine.h"

namespace nembra::testing {

class TestByteSource final : public MediaByteSource {
 public:
  explicit TestByteSource(const std::string& path,
                          int64_t stallAfter = std::numeric_limits<int64_t>::max())
      : file_(std::fopen(path.c_str(), "rb")), stallAfter_(stallAfter) {}
  ~TestByteSource() override {
    if (file_) std::fclose(file_);
  }

  int64_t read(uint8_t* buffer, size_t size) override {
    if (!file_) return -1;
    if (delivered_ >= stallAfter_) {
      stalled_.store(true);
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return cancelled_; });
      return -1;
    }
    if (cancelled()) return -1;
    const auto allowed = static_cast<size_t>(
        std::min<int64_t>(static_cast<int64_t>(size), stallAfter_ - delivered_));
    const size_t got = std::fread(buffer, 1, allowed, file_);
    delivered_ += static_cast<int64_t>(got);
    return static_cast<int64_t>(got);
  }
  bool seek(int64_t offset) override {
    return file_ && std::fseek(file_, static_cast<long>(offset), SEEK_SET) == 0;
  }
  int64_t size() override {
    if (!file_) return -1;
    const long here = std::ftell(file_);
    std::fseek(file_, 0, SEEK_END);
    const long total = std::ftell(file_);
    std::fseek(file_, here, SEEK_SET);
    return total;
  }
  void cancel() override {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    wake_.notify_all();
  }

  // True once a read has blocked.
  bool stalled() const { return stalled_.load(); }

 private:
  bool cancelled() {
    std::lock_guard lock(mutex_);
    return cancelled_;
  }

  std::FILE* file_;
  const int64_t stallAfter_;
  int64_t delivered_ = 0;  // bytes handed out, whatever the position
  std::atomic<bool> stalled_{false};
  std::mutex mutex_;
  std::condition_variable wake_;
  bool cancelled_ = false;
};

}  // namespace nembra::testing
