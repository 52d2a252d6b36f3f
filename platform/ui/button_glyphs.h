// The named images buttons are drawn from ("play-white", "record-white", "sun-yellow", ...):
// simple vector shapes of our own in a unit square, so no image files ship with the SDK. The
// last part of a name picks the colour ("-white", "-black", "-red", "-yellow"); the rest picks
// the shape.
//
// Threading: pure; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nembra {

struct GlyphPoint {
  float x = 0;  // 0..1, left to right
  float y = 0;  // 0..1, top to bottom
};

struct GlyphColor {
  uint8_t r = 255, g = 255, b = 255, a = 255;
};

// One convex filled polygon (drawn as a triangle fan from its first point).
struct GlyphShape {
  std::vector<GlyphPoint> points;
  GlyphColor color;
};

class ButtonGlyphs {
 public:
  // The shapes of |imageName|, back to front. |known| tells whether the shape part of the name
  // is one of ours; an unknown name still gets a plain ring so the button stays visible.
  static std::vector<GlyphShape> shapes(const std::string& imageName, bool* known = nullptr);
  // Every shape name drawn here, for the adapters' help and the tests.
  static const std::vector<std::string>& shapeNames();
};

}  // namespace nembra
