// A frame size with its aspect ratio, as the recorder asks for it.
//
// Threading: a plain value; any thread.
#pragma once

#include <cstdint>
#include <optional>

#include "nembra/aspect_ratio.h"
#include "nembra/error.h"

namespace nembra {

struct DisplaySize;  // the platform's display facts; screenAspectRatio is for the SDK's tests

class VideoSize {
 public:
  // init: no width or height yet, and the aspect ratio of the main display, longer side first.
  // Without a display (a server, a container) the ratio is 16 : 9.
  VideoSize();

  // Absent, with the error "The width and height can't be zero without aspect ratio.", when
  // both are zero. Both non-zero give the ratio of the two; one zero leaves it absent.
  static std::optional<VideoSize> initWithWidth(int32_t width, int32_t height,
                                                OptionalError* error = nullptr);
  // As above, with |aspectRatio| given. Absent, with the error "The aspect ratio doesn't fit
  // width and height.", when both sides are non-zero and do not reduce to it.
  static std::optional<VideoSize> initWithWidth(int32_t width, int32_t height,
                                                std::optional<AspectRatio> aspectRatio,
                                                OptionalError* error = nullptr);

  // The ratio of the main display's size; exposed so that the choice can be checked.
  static AspectRatio screenAspectRatio(const std::optional<DisplaySize>& display);

  // Same width and height; the aspect ratio is not compared.
  bool equals(const VideoSize& other) const;
  // Area order: this width × height minus the other's.
  int64_t compareTo(const VideoSize& other) const;

  int32_t width = 0;
  int32_t height = 0;
  std::optional<AspectRatio> aspectRatio;

 private:
  VideoSize(int32_t width, int32_t height, std::optional<AspectRatio> aspectRatio);
};

}  // namespace nembra
