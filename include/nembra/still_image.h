// A still picture as the SDK hands it to hosts: the encoded bytes (JPEG for covers and
// thumbnails) and the picture's size.
//
// Threading: a plain value; shared as std::shared_ptr<const StillImage>, immutable once shared.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nembra {

struct StillImage {
  std::vector<uint8_t> data;
  std::string format;  // "jpeg", "png", …
  int width = 0;
  int height = 0;
};

using StillImagePtr = std::shared_ptr<const StillImage>;

}  // namespace nembra
