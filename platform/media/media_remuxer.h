// Rewraps a media file in another container without touching its coded audio and pictures: an
// FLV recording of a live stream becomes an MP4 a player can seek in.
//
// Threading: a remuxer keeps no state between calls; any thread may call it, several at once.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

struct RemuxOptions {
  // The output container's short name, as FFmpeg knows it ("mp4", "mov", "matroska").
  std::string format = "mp4";
  // Moves the MP4 index to the front so playback can start before the whole file arrives.
  bool fastStart = true;
};

class MediaRemuxer {
 public:
  virtual ~MediaRemuxer() = default;
  // Copies every audio and picture track of |input| into a new file at |output| (replaced when
  // it exists). Data and subtitle tracks are left out. On failure |output| is removed; an Error
  // of kind Media when |input| is not media or its tracks cannot go into the container, kind File
  // when |output| cannot be written.
  virtual OptionalError remux(const std::string& input, const std::string& output,
                              const RemuxOptions& options) = 0;
};

// The media plug-in's remuxer (packets copied as they are).
std::unique_ptr<MediaRemuxer> makeMediaRemuxer();

}  // namespace nembra
