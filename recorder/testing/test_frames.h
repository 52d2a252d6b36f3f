// I420 pictures for the capture aids' tests. Header-only.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/ui/video_frame.h"

namespace nembra::testing {

// A |width| × |height| picture of one grey |luma| (neutral chroma), stamped |pts|.
inline std::shared_ptr<VideoFrame> solidFrame(int width, int height, uint8_t luma, double pts = 0) {
  auto frame = std::make_shared<VideoFrame>();
  frame->width = width;
  frame->height = height;
  frame->pts = pts;
  frame->strides[0] = width;
  frame->strides[1] = frame->strides[2] = (width + 1) / 2;
  frame->planes[0].assign(static_cast<size_t>(width) * height, luma);
  const size_t chroma = static_cast<size_t>((width + 1) / 2) * ((height + 1) / 2);
  frame->planes[1].assign(chroma, 128);
  frame->planes[2].assign(chroma, 128);
  return frame;
}

// A picture whose luma is |gray| (packed rows), chroma neutral.
inline std::shared_ptr<VideoFrame> frameFromGray(const std::vector<uint8_t>& gray, int width,
                                                 int height, double pts = 0) {
  auto frame = solidFrame(width, height, 0, pts);
  frame->planes[0] = gray;
  return frame;
}

inline uint8_t lumaAt(const VideoFrame& frame, int x, int y) {
  return frame.planes[0][static_cast<size_t>(y) * frame.strides[0] + x];
}

}  // namespace nembra::testing
