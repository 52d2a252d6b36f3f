// A decoded still picture, or the frames of an animated one, as 8-bit RGBA rows ready for a
// screen. Pictures are made once by the media plug-in and then shared read-only between
// threads (the memory cache, the screens).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nembra {

struct PictureFrame {
  std::vector<uint8_t> rgba;  // width × height × 4 bytes, rows packed
  double duration = 0;        // seconds this frame stays on screen; 0 for a still picture
};

struct Picture {
  std::string format;  // "jpeg", "png", "gif", "webp", "bmp", "tiff"
  int width = 0;       // of the frames, after any downscaling
  int height = 0;
  int sourceWidth = 0;  // as stored in the file
  int sourceHeight = 0;
  std::vector<PictureFrame> frames;
  // Set when an animation had more frames than the memory budget allowed.
  bool truncated = false;

  size_t byteSize() const {
    size_t total = 0;
    for (const PictureFrame& frame : frames) total += frame.rgba.size();
    return total;
  }
  bool animated() const { return frames.size() > 1; }
};

using SharedPicture = std::shared_ptr<const Picture>;

// Bounds on what a decode may produce: frames never exceed maxWidth × maxHeight (they are scaled
// down with the aspect kept, never up), a source beyond maxSourcePixels is refused before any
// pixel memory is allocated, and an animation stops adding frames past maxBytes.
struct PictureLimits {
  int maxWidth = 4096;
  int maxHeight = 4096;
  int64_t maxSourcePixels = 100'000'000;
  size_t maxBytes = 128u << 20;
};

}  // namespace nembra
