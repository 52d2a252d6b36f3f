// Cuts a stretch out of a local video, exact to the picture: everything between the cut points
// is decoded and encoded again (H.264 and AAC in MPEG-4, index at the front), so the output's
// first picture is the one shown at the start time and its last the one shown just before the
// end time, whatever the source's key frames.
//
// Threading: a trimmer keeps no state between calls; any thread may call it, several at once.
// A call runs on the calling thread until it is done.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

struct TrimSource {
  double duration = 0;   // seconds
  double frameRate = 0;  // pictures per second (the track's average)
  int width = 0;
  int height = 0;
  bool hasAudio = false;
};

class MediaTrimmer {
 public:
  virtual ~MediaTrimmer() = default;
  // What the editor needs to know of |path|: an Error of kind Media when it holds no picture
  // track, kind File when it cannot be read.
  virtual OptionalError describe(const std::string& path, TrimSource& source) = 0;
  // Writes the pictures of |input| whose times t satisfy |startSeconds| <= t < |endSeconds|,
  // and the sound between the same times, to |output| (replaced when it exists; removed on
  // failure). Times are counted from the picture track's start.
  virtual OptionalError trim(const std::string& input, const std::string& output,
                             double startSeconds, double endSeconds) = 0;
};

// The media plug-in's trimmer.
std::unique_ptr<MediaTrimmer> makeMediaTrimmer();

}  // namespace nembra
