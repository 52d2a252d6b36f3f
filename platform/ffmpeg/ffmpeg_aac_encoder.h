// AAC through FFmpeg's native encoder, in packets of 1024 samples per channel.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/media/media_encoder_audio.h"

struct AVAudioFifo;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;

namespace nembra {

// Input of any format is converted with libswresample to the encoder's planar float at the
// settings' rate and channel count. Times come from the samples counted since the first frame,
// so the output stays continuous even when a device delivers uneven blocks.
//
// Threading: see AudioEncoder.
class MediaEncoderAAC final : public AudioEncoder {
 public:
  static std::unique_ptr<MediaEncoderAAC> create(const AudioEncoderSettings& settings,
                                                 OptionalError& error);
  ~MediaEncoderAAC() override;

  OptionalError encode(const RawMediaFrame& frame, std::vector<EncodedAudioSample>& out) override;
  OptionalError flush(std::vector<EncodedAudioSample>& out) override;

 private:
  explicit MediaEncoderAAC(const AudioEncoderSettings& settings) : settings_(settings) {}
  OptionalError open();
  OptionalError configureResampler(const AVFrame* frame);
  // Encodes whole 1024-sample frames from the FIFO; with |drain| also the short rest.
  OptionalError encodeBuffered(bool drain, std::vector<EncodedAudioSample>& out);
  OptionalError receive(std::vector<EncodedAudioSample>& out);

  AudioEncoderSettings settings_;
  AVCodecContext* context_ = nullptr;
  SwrContext* resampler_ = nullptr;
  AVAudioFifo* fifo_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
  std::array<uint8_t, 2> asc_{};
  // The input layout the resampler is set up for.
  int inputFormat_ = -1;
  int inputRate_ = 0;
  int inputChannels_ = 0;
  std::optional<double> firstPts_;
  int64_t samplesQueued_ = 0;  // at the encoder's rate, since the first frame
};

}  // namespace nembra
