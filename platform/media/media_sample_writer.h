// Writes small, real media files made from a moving test pattern and a tone: what the demo and
// the benchmarks upload when the user gives no files of their own.
//
// Threading: stateless; any thread.
#pragma once

#include <string>

#include "nembra/error.h"

namespace nembra {

class MediaSampleWriter {
 public:
  // An MP4 of |seconds| of 25 fps pictures at |width|×|height| with a 440 Hz tone.
  static OptionalError writeVideo(const std::string& path, double seconds, int width, int height);
  // |seconds| of a 440 Hz tone as AAC in ADTS frames (an ".aac" file).
  static OptionalError writeAudio(const std::string& path, double seconds);
  // One picture of the pattern as a JPEG.
  static OptionalError writePicture(const std::string& path, int width, int height);
};

}  // namespace nembra
