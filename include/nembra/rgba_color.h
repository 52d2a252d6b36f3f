// A colour as configuration objects hand it to the screens: 8-bit red, green, blue and alpha.
//
// Threading: a plain value; any thread.
#pragma once

#include <cstdint>

namespace nembra {

struct RgbaColor {
  uint8_t red = 0;
  uint8_t green = 0;
  uint8_t blue = 0;
  uint8_t alpha = 0;  // 0: fully transparent

  static constexpr RgbaColor clear() { return {}; }

  bool operator==(const RgbaColor&) const = default;
};

}  // namespace nembra
