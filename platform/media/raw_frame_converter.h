// Makes captured frames readable outside the media plug-in: a small I420 picture for preview
// surfaces and frame observers (light meter, face detector), and PCM as signed 16-bit samples
// (sound meter).
//
// Threading: one caller at a time (the capture thread); keeps its scalers between calls.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/media/media_source_raw_frame.h"
#include "platform/ui/video_frame.h"

namespace nembra {

class RawFrameConverter {
 public:
  virtual ~RawFrameConverter() = default;
  // The picture scaled down (never up) to at most |maxWidth| pixels wide, aspect kept; null for
  // audio or when the picture cannot be converted.
  virtual SharedVideoFrame picture(const RawMediaFrame& frame, int maxWidth) = 0;
  // The samples interleaved, channel count unchanged; false for video.
  virtual bool pcm16(const RawMediaFrame& frame, std::vector<int16_t>& samples, int& channels) = 0;
};

}  // namespace nembra
