// MediaFileWriter over libavformat: libx264 pictures (converted to 4:2:0 by libswscale) and
// ALAC or AAC sound (converted by libswresample), muxed as the settings say.
#pragma once

#include <memory>
#include <mutex>

#include "platform/media/media_file_writer.h"

struct AVAudioFifo;
struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct AVStream;
struct SwrContext;
struct SwsContext;

namespace nembra {

// Threading: see MediaFileWriter; every member takes mutex_.
class FfmpegFileWriter final : public MediaFileWriter {
 public:
  static std::unique_ptr<FfmpegFileWriter> create(const MediaFileWriterSettings& settings,
                                                  OptionalError& error);
  ~FfmpegFileWriter() override;

  OptionalError appendVideo(const RawMediaFrame& frame, double seconds) override;
  OptionalError appendAudio(const RawMediaFrame& frame) override;
  OptionalError finish() override;

  int64_t videoFramesWritten() const override;
  int64_t audioSamplesWritten() const override;
  float lastAudioLevel() const override;

 private:
  explicit FfmpegFileWriter(const MediaFileWriterSettings& settings) : settings_(settings) {}
  OptionalError open();
  OptionalError openVideo();
  OptionalError openAudio();
  // Encodes |frame| (null: drains) and writes what comes out.
  OptionalError encode(AVCodecContext* codec, AVStream* stream, AVFrame* frame);
  // Whole codec frames from the FIFO; with |drain| also the short rest.
  OptionalError encodeAudioFifo(bool drain);
  Error failure(const std::string& what, int code);
  // A frame slot's time in kVideoTimeBase.
  int64_t slotPts(int64_t slot) const;

  const MediaFileWriterSettings settings_;
  mutable std::mutex mutex_;
  AVFormatContext* format_ = nullptr;
  AVCodecContext* video_ = nullptr;
  AVStream* videoStream_ = nullptr;
  AVCodecContext* audio_ = nullptr;
  AVStream* audioStream_ = nullptr;
  AVPacket* packet_ = nullptr;
  AVFrame* picture_ = nullptr;
  AVFrame* block_ = nullptr;
  SwsContext* scaler_ = nullptr;
  SwrContext* resampler_ = nullptr;
  AVAudioFifo* fifo_ = nullptr;
  // The input shapes the converters are set up for.
  int scalerFormat_ = -1, scalerWidth_ = 0, scalerHeight_ = 0;
  int resamplerFormat_ = -1, resamplerRate_ = 0, resamplerChannels_ = 0;
  double lastSeconds_ = -1e300;  // of the newest picture appended
  int64_t nextSlot_ = -1;        // the frame slot the next picture takes; -1 before the first
  int64_t videoFrames_ = 0;
  int64_t audioQueued_ = 0;   // samples handed to the FIFO
  int64_t audioEncoded_ = 0;  // samples handed to the encoder: the next frame's pts
  float level_ = -160.0f;
  bool headerWritten_ = false;
  bool finished_ = false;
  OptionalError failed_;  // the first failure; every later call returns it
};

}  // namespace nembra
