// A borrowed 8-bit grey picture: the luma plane of a video frame, as detectors and scanners read
// it.
#pragma once

#include <cstdint>

namespace nembra {

struct GrayImageView {
  const uint8_t* pixels = nullptr;
  int width = 0;
  int height = 0;
  int stride = 0;  // bytes from one row to the next
};

}  // namespace nembra
