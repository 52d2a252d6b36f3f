#include "nembra/video_size.h"

#include <algorithm>

#include "platform/system/device_facts.h"

namespace nembra {

VideoSize::VideoSize() : aspectRatio(screenAspectRatio(DeviceFacts().mainDisplaySize())) {}

VideoSize::VideoSize(int32_t width, int32_t height, std::optional<AspectRatio> aspectRatio)
    : width(width), height(height), aspectRatio(aspectRatio) {}

AspectRatio VideoSize::screenAspectRatio(const std::optional<DisplaySize>& display) {
  if (!display) return AspectRatio::of(16, 9);
  return AspectRatio::of(std::max(display->width, display->height),
                         std::min(display->width, display->height));
}

std::optional<VideoSize> VideoSize::initWithWidth(int32_t width, int32_t height,
                                                  OptionalError* error) {
  return initWithWidth(width, height, std::nullopt, error);
}

std::optional<VideoSize> VideoSize::initWithWidth(int32_t width, int32_t height,
                                                  std::optional<AspectRatio> aspectRatio,
                                                  OptionalError* error) {
  if (width == 0 && height == 0 && !aspectRatio) {
    if (error) {
      *error = Error::invalidArgument("The width and height can't be zero without aspect ratio.");
    }
    return std::nullopt;
  }
  if (width != 0 && height != 0) {
    AspectRatio own = AspectRatio::of(width, height);
    if (aspectRatio && !own.equals(aspectRatio)) {
      if (error) *error = Error::invalidArgument("The aspect ratio doesn't fit width and height.");
      return std::nullopt;
    }
    aspectRatio = own;
  }
  return VideoSize(width, height, aspectRatio);
}

bool VideoSize::equals(const VideoSize& other) const {
  return width == other.width && height == other.height;
}

int64_t VideoSize::compareTo(const VideoSize& other) const {
  return int64_t{width} * height - int64_t{other.width} * other.height;
}

}  // namespace nembra
