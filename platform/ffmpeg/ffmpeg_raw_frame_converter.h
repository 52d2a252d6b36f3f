// RawFrameConverter over swscale and swresample.
#pragma once

#include "platform/media/raw_frame_converter.h"

struct SwsContext;
struct SwrContext;

namespace nembra {

class FfmpegRawFrameConverter final : public RawFrameConverter {
 public:
  FfmpegRawFrameConverter() = default;
  ~FfmpegRawFrameConverter() override;
  FfmpegRawFrameConverter(const FfmpegRawFrameConverter&) = delete;
  FfmpegRawFrameConverter& operator=(const FfmpegRawFrameConverter&) = delete;

  SharedVideoFrame picture(const RawMediaFrame& frame, int maxWidth) override;
  bool pcm16(const RawMediaFrame& frame, std::vector<int16_t>& samples, int& channels) override;

 private:
  SwsContext* scaler_ = nullptr;
  SwrContext* resampler_ = nullptr;
  int resamplerFormat_ = -1;
  int resamplerRate_ = 0;
  int resamplerChannels_ = 0;
};

}  // namespace nembra
