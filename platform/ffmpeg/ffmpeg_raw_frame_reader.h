// FFmpeg's side of RawFrameReader: swscale for pictures, swresample for sound.
//
// Threading: see RawFrameReader.
#pragma once

#include "platform/media/raw_frame_reader.h"

struct SwsContext;
struct SwrContext;

namespace nembra {

class FfmpegRawFrameReader final : public RawFrameReader {
 public:
  FfmpegRawFrameReader() = default;
  ~FfmpegRawFrameReader() override;
  FfmpegRawFrameReader(const FfmpegRawFrameReader&) = delete;
  FfmpegRawFrameReader& operator=(const FfmpegRawFrameReader&) = delete;

  SharedVideoFrame picture(const RawMediaFrame& frame, int maxWidth, int maxHeight,
                           OptionalError& error) override;
  OptionalError samples(const RawMediaFrame& frame, std::vector<int16_t>& samples,
                        int& channels) override;
  OptionalError encodeJpeg(const VideoFrame& picture, int quality,
                           std::vector<uint8_t>& jpeg) override;

 private:
  SwsContext* scaler_ = nullptr;
  SwrContext* resampler_ = nullptr;
  // What resampler_ was set up for.
  int resamplerFormat_ = -1;
  int resamplerRate_ = 0;
  int resamplerChannels_ = 0;
};

}  // namespace nembra
