// Turns decoded pictures into the I420 VideoFrames that surfaces take: 4:2:0 pictures are copied
// plane by plane as they are; any other pixel format goes through swscale.
//
// The pictures handed out go back to the converter when their last holder lets go, and the
// next conversion reuses their buffers: a 1080p picture is 3 MB that the allocator would
// otherwise take fresh (and the kernel fault in) thirty times a second.
//
// Threading: convert() on one thread at a time (the video sync thread); the pictures may be
// released on any thread, before or after the converter goes.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "platform/ui/video_frame.h"

struct AVFrame;
struct SwsContext;

namespace nembra::player {

class I420Converter {
 public:
  I420Converter() = default;
  ~I420Converter();
  I420Converter(const I420Converter&) = delete;
  I420Converter& operator=(const I420Converter&) = delete;

  // Null when the picture cannot be converted.
  SharedVideoFrame convert(const AVFrame& picture, double pts);

  // Pictures released and kept for reuse (at most kKept).
  size_t keptCount() const;
  static constexpr size_t kKept = 2;

 private:
  struct Pool {
    std::mutex mutex;
    std::vector<std::unique_ptr<VideoFrame>> kept;  // guarded by mutex
  };

  // A blank picture, with the buffers of a released one when there is one.
  std::unique_ptr<VideoFrame> reuse();

  SwsContext* scaler_ = nullptr;
  const std::shared_ptr<Pool> pool_ = std::make_shared<Pool>();
};

}  // namespace nembra::player
