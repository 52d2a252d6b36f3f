// The H.264 encoder seam: raw pictures in, length-prefixed access units out.
#pragma once

#include <vector>

#include "nembra/error.h"
#include "platform/media/media_encoder_samples.h"
#include "platform/media/media_source_raw_frame.h"

namespace nembra {

struct VideoEncoderSettings {
  int width = 0;
  int height = 0;
  int bitrate = 0;  // bits per second, average
  int framerate = 0;
};

// Threading: one caller at a time; samples are returned to the caller, no callbacks.
class VideoEncoder {
 public:
  virtual ~VideoEncoder() = default;

  // Encodes |frame| (any size and pixel format: it is scaled to the settings) stamped |pts|
  // seconds, appending the samples that are ready to |out|. Stamps must increase.
  virtual OptionalError encode(const RawMediaFrame& frame, double pts,
                               std::vector<EncodedVideoSample>& out) = 0;
  // Drains the encoder at the end of the stream.
  virtual OptionalError flush(std::vector<EncodedVideoSample>& out) = 0;
};

}  // namespace nembra
