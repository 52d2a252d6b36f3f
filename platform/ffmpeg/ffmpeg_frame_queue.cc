#include "platform/ffmpeg/ffmpeg_frame_queue.h"

namespace nembra::player {

bool FrameQueue::push(DecodedFrame frame) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return aborted_ || frames_.size() < capacity_; });
  if (aborted_) return false;
  frames_.push_back(std::move(frame));
  changed_.notify_all();
  return true;
}

DecodedFrame* FrameQueue::peek() {
  std::lock_guard lock(mutex_);
  return frames_.empty() ? nullptr : &frames_.front();
}

DecodedFrame* FrameQueue::peekNext() {
  std::lock_guard lock(mutex_);
  return frames_.size() < 2 ? nullptr : &frames_[1];
}

void FrameQueue::pop() {
  DecodedFrame popped;  // freed outside the lock
  std::lock_guard lock(mutex_);
  if (frames_.empty()) return;
  popped = std::move(frames_.front());
  frames_.pop_front();
  changed_.notify_all();
}

bool FrameQueue::waitForFrame(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return aborted_ || !frames_.empty(); }) &&
         !frames_.empty();
}

size_t FrameQueue::size() const {
  std::lock_guard lock(mutex_);
  return frames_.size();
}

void FrameQueue::abort() {
  std::lock_guard lock(mutex_);
  aborted_ = true;
  changed_.notify_all();
}

}  // namespace nembra::player
