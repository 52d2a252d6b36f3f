// Reads what a media file holds without decoding it: picture size, duration and which kinds of
// track are present.
//
// Threading: a probe keeps no state between calls; any thread may call it, several at once.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

struct MediaProbeResult {
  std::string container;  // the demuxer's short name, e.g. "mov,mp4,m4a,3gp,3g2,mj2"
  int width = 0;          // as displayed: a 90° rotation swaps the coded width and height
  int height = 0;
  int rotation = 0;       // clockwise degrees the picture must turn to display: 0, 90, 180, 270
  double duration = 0.0;  // seconds; 0 when the file does not say (a still image)
  bool hasVideo = false;  // a moving-picture track (cover art attached to audio does not count)
  bool hasAudio = false;
  std::string videoCodec;  // e.g. "h264", "mjpeg"; empty without a picture
  std::string audioCodec;  // e.g. "aac"; empty without sound
};

class MediaProbe {
 public:
  virtual ~MediaProbe() = default;
  // An Error of kind Media when the file cannot be opened as media or holds no audio or picture
  // track; kind File when it cannot be read at all.
  virtual OptionalError probe(const std::string& path, MediaProbeResult& result) = 0;
};

// The media plug-in's probe.
std::unique_ptr<MediaProbe> makeMediaProbe();

}  // namespace nembra
