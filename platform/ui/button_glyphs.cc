#include "platform/ui/button_glyphs.h"

#include <cmath>
#include <map>

namespace nembra {
namespace {

constexpr float kPi = 3.14159265f;

const std::map<std::string, GlyphColor>& colors() {
  static const std::map<std::string, GlyphColor> table = {
      {"white", {255, 255, 255, 255}}, {"black", {20, 20, 20, 255}},
      {"red", {230, 40, 40, 255}},     {"yellow", {250, 205, 40, 255}},
      {"green", {60, 200, 90, 255}},   {"gray", {150, 150, 150, 255}},
  };
  return table;
}

constexpr GlyphColor kRecordRed{230, 40, 40, 255};

GlyphShape polygon(std::vector<GlyphPoint> points, GlyphColor color) {
  return GlyphShape{std::move(points), color};
}

GlyphShape disc(float cx, float cy, float r, GlyphColor color, int segments = 32) {
  GlyphShape shape{{}, color};
  for (int i = 0; i < segments; ++i) {
    const float angle = 2 * kPi * static_cast<float>(i) / static_cast<float>(segments);
    shape.points.push_back({cx + r * std::cos(angle), cy + r * std::sin(angle)});
  }
  return shape;
}

GlyphShape rect(float x0, float y0, float x1, float y1, GlyphColor color) {
  return polygon({{x0, y0}, {x1, y0}, {x1, y1}, {x0, y1}}, color);
}

// A bar from (x0, y0) to (x1, y1) of |width|: rays, crosses, handles.
GlyphShape bar(float x0, float y0, float x1, float y1, float width, GlyphColor color) {
  const float dx = x1 - x0, dy = y1 - y0;
  const float length = std::sqrt(dx * dx + dy * dy);
  const float nx = -dy / length * width / 2, ny = dx / length * width / 2;
  return polygon({{x0 + nx, y0 + ny}, {x1 + nx, y1 + ny}, {x1 - nx, y1 - ny}, {x0 - nx, y0 - ny}},
                 color);
}

// A ring as quads around the circle (each quad is convex).
void ring(std::vector<GlyphShape>& out, float cx, float cy, float r, float width, GlyphColor color,
          int segments = 32) {
  for (int i = 0; i < segments; ++i) {
    const float a0 = 2 * kPi * static_cast<float>(i) / static_cast<float>(segments);
    const float a1 = 2 * kPi * static_cast<float>(i + 1) / static_cast<float>(segments);
    const float ro = r, ri = r - width;
    out.push_back(polygon({{cx + ro * std::cos(a0), cy + ro * std::sin(a0)},
                           {cx + ro * std::cos(a1), cy + ro * std::sin(a1)},
                           {cx + ri * std::cos(a1), cy + ri * std::sin(a1)},
                           {cx + ri * std::cos(a0), cy + ri * std::sin(a0)}},
                          color));
  }
}

using Builder = void (*)(std::vector<GlyphShape>&, GlyphColor);

const std::map<std::string, Builder>& builders() {
  static const std::map<std::string, Builder> table = {
      {"record",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         ring(out, 0.5f, 0.5f, 0.46f, 0.07f, c);
         out.push_back(disc(0.5f, 0.5f, 0.31f, kRecordRed));
       }},
      {"stop",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         ring(out, 0.5f, 0.5f, 0.46f, 0.07f, c);
         out.push_back(rect(0.33f, 0.33f, 0.67f, 0.67f, kRecordRed));
       }},
      {"play",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(polygon({{0.3f, 0.2f}, {0.82f, 0.5f}, {0.3f, 0.8f}}, c));
       }},
      {"pause",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(rect(0.27f, 0.2f, 0.43f, 0.8f, c));
         out.push_back(rect(0.57f, 0.2f, 0.73f, 0.8f, c));
       }},
      {"sun",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(disc(0.5f, 0.5f, 0.2f, c));
         for (int i = 0; i < 8; ++i) {
           const float a = kPi * static_cast<float>(i) / 4;
           out.push_back(bar(0.5f + 0.28f * std::cos(a), 0.5f + 0.28f * std::sin(a),
                             0.5f + 0.44f * std::cos(a), 0.5f + 0.44f * std::sin(a), 0.06f, c));
         }
       }},
      {"audio-record-start",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         // A microphone: capsule, stand and foot.
         out.push_back(disc(0.5f, 0.27f, 0.12f, c));
         out.push_back(rect(0.38f, 0.27f, 0.62f, 0.5f, c));
         out.push_back(disc(0.5f, 0.5f, 0.12f, c));
         out.push_back(bar(0.5f, 0.62f, 0.5f, 0.82f, 0.06f, c));
         out.push_back(rect(0.34f, 0.8f, 0.66f, 0.86f, c));
       }},
      {"audio-record-stop",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         ring(out, 0.5f, 0.5f, 0.46f, 0.07f, c);
         out.push_back(rect(0.34f, 0.34f, 0.66f, 0.66f, c));
       }},
      {"close",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(bar(0.25f, 0.25f, 0.75f, 0.75f, 0.1f, c));
         out.push_back(bar(0.75f, 0.25f, 0.25f, 0.75f, 0.1f, c));
       }},
      {"next",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(bar(0.38f, 0.2f, 0.68f, 0.5f, 0.1f, c));
         out.push_back(bar(0.68f, 0.5f, 0.38f, 0.8f, 0.1f, c));
       }},
      {"previous",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(bar(0.62f, 0.2f, 0.32f, 0.5f, 0.1f, c));
         out.push_back(bar(0.32f, 0.5f, 0.62f, 0.8f, 0.1f, c));
       }},
      {"zoom-in",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         ring(out, 0.44f, 0.44f, 0.28f, 0.06f, c);
         out.push_back(bar(0.64f, 0.64f, 0.85f, 0.85f, 0.09f, c));
         out.push_back(rect(0.31f, 0.41f, 0.57f, 0.47f, c));
         out.push_back(rect(0.41f, 0.31f, 0.47f, 0.57f, c));
       }},
      {"zoom-out",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         ring(out, 0.44f, 0.44f, 0.28f, 0.06f, c);
         out.push_back(bar(0.64f, 0.64f, 0.85f, 0.85f, 0.09f, c));
         out.push_back(rect(0.31f, 0.41f, 0.57f, 0.47f, c));
       }},
      {"fit",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         for (float x : {0.2f, 0.8f}) {
           for (float y : {0.2f, 0.8f}) {
             const float h = x < 0.5f ? 0.2f : -0.2f, v = y < 0.5f ? 0.2f : -0.2f;
             out.push_back(bar(x, y, x + h, y, 0.07f, c));
             out.push_back(bar(x, y, x, y + v, 0.07f, c));
           }
         }
       }},
      {"switch-camera",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(rect(0.15f, 0.32f, 0.85f, 0.78f, c));
         out.push_back(rect(0.38f, 0.22f, 0.62f, 0.32f, c));
         ring(out, 0.5f, 0.55f, 0.15f, 0.05f, GlyphColor{40, 40, 40, 255});
       }},
      {"flash",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(polygon({{0.55f, 0.1f}, {0.3f, 0.55f}, {0.5f, 0.55f}}, c));
         out.push_back(polygon({{0.5f, 0.45f}, {0.7f, 0.45f}, {0.45f, 0.9f}}, c));
       }},
      {"check",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(bar(0.22f, 0.52f, 0.42f, 0.72f, 0.1f, c));
         out.push_back(bar(0.42f, 0.72f, 0.8f, 0.3f, 0.1f, c));
       }},
      {"mute",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(rect(0.18f, 0.38f, 0.34f, 0.62f, c));
         out.push_back(polygon({{0.34f, 0.38f}, {0.56f, 0.2f}, {0.56f, 0.8f}, {0.34f, 0.62f}}, c));
         out.push_back(bar(0.64f, 0.38f, 0.86f, 0.62f, 0.06f, c));
         out.push_back(bar(0.86f, 0.38f, 0.64f, 0.62f, 0.06f, c));
       }},
      {"volume",
       [](std::vector<GlyphShape>& out, GlyphColor c) {
         out.push_back(rect(0.18f, 0.38f, 0.34f, 0.62f, c));
         out.push_back(polygon({{0.34f, 0.38f}, {0.56f, 0.2f}, {0.56f, 0.8f}, {0.34f, 0.62f}}, c));
         out.push_back(bar(0.66f, 0.35f, 0.66f, 0.65f, 0.06f, c));
         out.push_back(bar(0.78f, 0.25f, 0.78f, 0.75f, 0.06f, c));
       }},
  };
  return table;
}

}  // namespace

std::vector<GlyphShape> ButtonGlyphs::shapes(const std::string& imageName, bool* known) {
  std::string shape = imageName;
  GlyphColor color = colors().at("white");
  if (auto dash = imageName.rfind('-'); dash != std::string::npos) {
    if (auto it = colors().find(imageName.substr(dash + 1)); it != colors().end()) {
      color = it->second;
      shape = imageName.substr(0, dash);
    }
  }
  std::vector<GlyphShape> out;
  auto it = builders().find(shape);
  if (known) *known = it != builders().end();
  if (it == builders().end()) {
    ring(out, 0.5f, 0.5f, 0.46f, 0.07f, color);
    return out;
  }
  it->second(out, color);
  return out;
}

const std::vector<std::string>& ButtonGlyphs::shapeNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> all;
    for (const auto& [name, builder] : builders()) all.push_back(name);
    return all;
  }();
  return names;
}

}  // namespace nembra
