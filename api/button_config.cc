#include "nembra/button_config.h"

#include <cstdio>

#include "api/config_line.h"

namespace nembra {

namespace {

// Six significant digits, trailing zeros dropped: "1", "0.5", "44".
std::string numberText(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

}  // namespace

std::string ButtonConfig::stringValueConfig() const {
  return configJsonLine({{"imagePath", nullableText(imagePath_)},
                         {"selectedImagePath", nullableText(selectedImagePath_)},
                         {"scale", numberText(scale_)},
                         {"width", numberText(width_)},
                         {"height", numberText(height_)}});
}

}  // namespace nembra
