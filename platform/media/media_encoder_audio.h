// The AAC encoder seam: PCM in, raw AAC frames of 1024 samples out.
#pragma once

#include <vector>

#include "nembra/error.h"
#include "platform/media/media_encoder_samples.h"
#include "platform/media/media_source_raw_frame.h"

namespace nembra {

struct AudioEncoderSettings {
  int sampleRate = 0;
  int channels = 0;
  int bitrate = 0;  // bits per second
};

// Threading: one caller at a time; samples are returned to the caller, no callbacks.
class AudioEncoder {
 public:
  virtual ~AudioEncoder() = default;

  // Takes |frame| (any sample format, rate and layout: it is converted to the settings), appending
  // the AAC frames that are complete to |out|. A frame's time is that of its first sample, counted
  // on from the first frame given.
  virtual OptionalError encode(const RawMediaFrame& frame,
                               std::vector<EncodedAudioSample>& out) = 0;
  // Encodes what is buffered and drains the encoder.
  virtual OptionalError flush(std::vector<EncodedAudioSample>& out) = 0;
};

}  // namespace nembra
