// Turns decoded pictures into the I420 VideoFrames that surfaces take: 4:2:0 pictures are copied
// plane by plane as they are; any other pixel format goes through swscale.
//
// Threading: one thread at a time (the video sync thread).
#pragma once

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

 private:
  SwsContext* scaler_ = nullptr;
};

}  // namespace nembra::player
