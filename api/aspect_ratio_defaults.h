// The process-wide aspect ratios the application object sets when it is made and the recorder
// reads: the default (16:9), the fallback (4:3), and the parsed 16:9, 4:3 and 1:1.
//
// Threading: any thread; each read sees a whole set.
#pragma once

#include <optional>

#include "nembra/aspect_ratio.h"

namespace nembra {

class AspectRatioDefaults {
 public:
  // Parses the three texts with AspectRatio::parse and sets every value from them.
  static void setUp();

  // Absent until setUp() has run once in this process.
  static std::optional<AspectRatio> defaultRatio();
  static std::optional<AspectRatio> fallbackRatio();
  static std::optional<AspectRatio> ratio16x9();
  static std::optional<AspectRatio> ratio4x3();
  static std::optional<AspectRatio> ratio1x1();
};

}  // namespace nembra
