// Looks inside the raw pictures and PCM a capture source delivers, for code outside the media
// plug-in that analyses them (meters, detectors, scanners, previews): pictures come out as I420
// VideoFrames, sound as interleaved signed 16-bit samples.
//
// Threading: one caller at a time per reader (it keeps its scaler between calls).
#pragma once

#include <cstdint>
#include <vector>

#include "nembra/error.h"
#include "platform/media/media_source_raw_frame.h"
#include "platform/ui/video_frame.h"

namespace nembra {

class RawFrameReader {
 public:
  virtual ~RawFrameReader() = default;

  // |frame| as I420, scaled down (aspect kept, never up) to fit |maxWidth| x |maxHeight| when
  // they are not 0. Null, with |error| set, for an audio frame or a picture that can't convert.
  virtual SharedVideoFrame picture(const RawMediaFrame& frame, int maxWidth, int maxHeight,
                                   OptionalError& error) = 0;
  // The samples of an audio frame, every channel interleaved, replacing |samples|' contents.
  virtual OptionalError samples(const RawMediaFrame& frame, std::vector<int16_t>& samples,
                                int& channels) = 0;
  // |picture| as a baseline JPEG at quantizer |quality| (2, the best, to 31).
  virtual OptionalError encodeJpeg(const VideoFrame& picture, int quality,
                                   std::vector<uint8_t>& jpeg) = 0;
};

}  // namespace nembra
