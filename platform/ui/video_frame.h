// One decoded picture on its way to a screen's video surface. Planar YUV 4:2:0 (I420) is the
// form every surface takes without conversion; the window uploads the three planes to a YUV
// texture as they are. The frame is immutable once made and shared between threads.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace nembra {

struct VideoFrame {
  int width = 0;  // luma size in pixels
  int height = 0;
  // Display aspect of one pixel (num / den), 1/1 for square pixels.
  int sampleAspectNum = 1;
  int sampleAspectDen = 1;
  // Presentation time in seconds on the media's own timeline.
  double pts = 0;
  // Y, U and V planes and their strides in bytes; U and V are (width+1)/2 × (height+1)/2.
  std::vector<uint8_t> planes[3];
  int strides[3] = {0, 0, 0};
};

using SharedVideoFrame = std::shared_ptr<const VideoFrame>;

}  // namespace nembra
