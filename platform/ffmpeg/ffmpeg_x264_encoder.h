// H.264 through libx264: baseline profile, a key frame every two seconds, no B-frames, average
// bitrate, zero-latency tuning, parameter sets out of band.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <utility>

#include "platform/media/media_encoder_video.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

namespace nembra {

// Threading: see VideoEncoder.
class MediaEncoderX264 final : public VideoEncoder {
 public:
  static std::unique_ptr<MediaEncoderX264> create(const VideoEncoderSettings& settings,
                                                  OptionalError& error);
  ~MediaEncoderX264() override;

  OptionalError encode(const RawMediaFrame& frame, double pts,
                       std::vector<EncodedVideoSample>& out) override;
  OptionalError flush(std::vector<EncodedVideoSample>& out) override;

  // The preset both this encoder and comparison runs use; speed over size for live.
  static constexpr const char* kPreset = "veryfast";

 private:
  explicit MediaEncoderX264(const VideoEncoderSettings& settings) : settings_(settings) {}
  OptionalError open();
  OptionalError send(const AVFrame* frame, std::vector<EncodedVideoSample>& out);

  VideoEncoderSettings settings_;
  AVCodecContext* context_ = nullptr;
  AVFrame* scaled_ = nullptr;
  AVPacket* packet_ = nullptr;
  SwsContext* scaler_ = nullptr;
  std::vector<uint8_t> sps_;
  std::vector<uint8_t> pps_;
  int64_t nextFrameIndex_ = 0;
  // Encoder frame index → the caller's stamp, for the samples still inside the encoder.
  std::deque<std::pair<int64_t, double>> stamps_;
};

}  // namespace nembra
