// Takes one still picture out of a media file and encodes it as JPEG: the cover of a video when
// none was chosen, or a thumbnail of a local file.
//
// Threading: a grabber keeps no state between calls; any thread may call it, several at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "nembra/error.h"

namespace nembra {

struct FrameGrabOptions {
  // The first picture shown at or after this time is taken.
  double atSeconds = 0.0;
  // The picture is scaled down, never up, to fit inside this box, keeping its aspect ratio.
  int maxWidth = 1920;
  int maxHeight = 1080;
  // Turn the picture the way the file asks for display (phones record sideways).
  bool applyRotation = true;
  // JPEG quantiser scale, 2 (best) to 31.
  int jpegQuality = 2;
};

struct GrabbedFrame {
  std::vector<uint8_t> jpeg;
  int width = 0;
  int height = 0;
};

class FrameGrabber {
 public:
  virtual ~FrameGrabber() = default;
  // An Error of kind Media when the file has no picture track or nothing decodes; kind File when
  // it cannot be opened.
  virtual OptionalError grab(const std::string& path, const FrameGrabOptions& options,
                             GrabbedFrame& frame) = 0;
};

// The media plug-in's grabber (decoding, scaling, the JPEG encoder).
std::unique_ptr<FrameGrabber> makeFrameGrabber();

// The size that fits |width| x |height| inside |maxWidth| x |maxHeight| without enlarging,
// keeping the aspect ratio; both results even and at least 2 (JPEG's chroma subsampling).
void fitInside(int width, int height, int maxWidth, int maxHeight, int& fitWidth, int& fitHeight);

}  // namespace nembra
