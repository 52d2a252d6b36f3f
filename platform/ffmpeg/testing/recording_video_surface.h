// A VideoSurface for tests and benchmarks: keeps what was presented (times and sizes of every
// frame, the last frame itself) and lets a caller wait for a condition on it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/ui/video_surface.h"

namespace nembra::testing {

class RecordingVideoSurface final : public VideoSurface {
 public:
  struct Shown {
    double pts;
    int width;
    int height;
    int clearsBefore;  // how many clear() calls came before this frame
  };

  // Runs on the presenting thread for every frame (benchmarks measure there).
  std::function<void(const SharedVideoFrame&)> onPresent;

  void present(SharedVideoFrame frame) override {
    if (onPresent) onPresent(frame);
    std::lock_guard lock(mutex_);
    shown_.push_back({frame->pts, frame->width, frame->height, clears_});
    last_ = std::move(frame);
    changed_.notify_all();
  }
  void clear() override {
    std::lock_guard lock(mutex_);
    ++clears_;
    last_.reset();
    changed_.notify_all();
  }

  std::vector<Shown> shown() const {
    std::lock_guard lock(mutex_);
    return shown_;
  }
  size_t count() const {
    std::lock_guard lock(mutex_);
    return shown_.size();
  }
  SharedVideoFrame last() const {
    std::lock_guard lock(mutex_);
    return last_;
  }
  // Waits until |done| holds for the frames shown so far.
  bool waitFor(const std::function<bool(const std::vector<Shown>&)>& done,
               std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(shown_); });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Shown> shown_;
  SharedVideoFrame last_;
  int clears_ = 0;
};

}  // namespace nembra::testing
