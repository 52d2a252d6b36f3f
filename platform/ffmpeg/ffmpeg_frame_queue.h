// Decoded frames of one stream waiting to be shown or heard, a few at most: the decoder blocks
// when the queue is full, which is what paces decoding to playback.
//
// Threading: push from the decoder thread; peek/pop from the one consumer (the video sync thread
// or the audio output's thread); abort, clear and size from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "platform/ffmpeg/ffmpeg_av_support.h"

namespace nembra::player {

struct DecodedFrame {
  AvFrame frame;
  int serial = 0;
  double pts = 0;       // seconds
  double duration = 0;  // seconds
};

class FrameQueue {
 public:
  explicit FrameQueue(size_t capacity) : capacity_(capacity) {}
  FrameQueue(const FrameQueue&) = delete;
  FrameQueue& operator=(const FrameQueue&) = delete;

  // Waits for room, then queues |frame|. False (the frame dropped) once aborted.
  bool push(DecodedFrame frame);
  // The oldest frame, or null when empty. Stays valid until pop() or clear().
  DecodedFrame* peek();
  // The one after it, or null.
  DecodedFrame* peekNext();
  void pop();
  // Waits up to |timeout| for a frame; true when one is there.
  bool waitForFrame(std::chrono::milliseconds timeout);
  size_t size() const;
  void abort();

 private:
  const size_t capacity_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // A deque never moves its elements on push_back/pop_front, so peeked pointers stay valid.
  std::deque<DecodedFrame> frames_;  // guarded by mutex_
  bool aborted_ = false;
};

}  // namespace nembra::player
