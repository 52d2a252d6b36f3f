// A video surface that keeps the newest picture for a window loop to take, as a window's
// surface does.
//
// Threading: present() on the player's thread; take() on the window loop's.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "platform/media/media_player_engine.h"

namespace nembra::testing {

class FrameHandoffSurface final : public VideoSurface {
 public:
  // On the player's thread, for each picture handed over.
  std::function<void(const VideoFrame&)> onPresent;

  void present(SharedVideoFrame frame) override {
    if (onPresent) onPresent(*frame);
    std::lock_guard lock(mutex_);
    latest_ = std::move(frame);
    fresh_ = true;
    wake_.notify_one();
  }
  void clear() override {}

  // The newest picture not taken yet, waiting up to |wait|; null when none came.
  SharedVideoFrame take(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    wake_.wait_for(lock, wait, [this] { return fresh_; });
    if (!fresh_) return nullptr;
    fresh_ = false;
    return latest_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  SharedVideoFrame latest_;
  bool fresh_ = false;
};

}  // namespace nembra::testing
