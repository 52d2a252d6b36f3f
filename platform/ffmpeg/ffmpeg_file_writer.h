// MediaFileWriter over libavformat: libx264 pictures (converted to 4:2:0 by libswscale) and
// ALAC or AAC sound (converted by libswresample), muxed as the settings say. Pictures are
// converted and encoded on a thread of their own, "com.nembra.fileWriter.video", so that a
// capture thread handing them over goes back to capturing at once.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

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

// Threading: see MediaFileWriter; every member takes mutex_. The video thread takes mutex_ only
// to take a picture from the queue or report a failure; it converts and encodes without it.
// Writing to the file takes muxMutex_ (after mutex_ when both are held).
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
  // Encodes |frame| (null: drains) and writes what comes out, through |packet|.
  OptionalError encode(AVCodecContext* codec, AVStream* stream, AVFrame* frame, AVPacket* packet);
  // Stops the video thread once it has encoded every queued picture. Without mutex_ held.
  void stopVideoThread();
  // Whole codec frames from the FIFO; with |drain| also the short rest.
  OptionalError encodeAudioFifo(bool drain);
  Error failure(const std::string& what, int code);
  // A frame slot's time in kVideoTimeBase.
  int64_t slotPts(int64_t slot) const;
  // The video thread: converts and encodes queued pictures until told to stop and drained.
  void encodePictures();
  // Converts |picture| into picture_ and encodes it for slots |first| to |last|. On the video
  // thread (or after it ended).
  OptionalError encodePicture(AVFrame* picture, int64_t first, int64_t last);

  struct QueuedPicture {
    AVFrame* picture;
    int64_t firstSlot;
    int64_t lastSlot;
  };

  const MediaFileWriterSettings settings_;
  mutable std::mutex mutex_;
  std::mutex muxMutex_;
  AVFormatContext* format_ = nullptr;
  AVCodecContext* video_ = nullptr;
  AVStream* videoStream_ = nullptr;
  AVCodecContext* audio_ = nullptr;
  AVStream* audioStream_ = nullptr;
  AVPacket* packet_ = nullptr;       // the sound's
  AVPacket* videoPacket_ = nullptr;  // the video thread's
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
  OptionalError failed_;             // the first failure; every later call returns it
  std::deque<QueuedPicture> queue_;  // guarded by mutex_
  std::condition_variable queueChanged_;
  bool stopEncoding_ = false;  // guarded by mutex_
  std::thread videoThread_;
};

}  // namespace nembra
