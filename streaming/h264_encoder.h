// Turns raw pictures into H.264 samples for the live streamer.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/media/media_encoder_samples.h"
#include "platform/media/media_encoder_video.h"
#include "platform/media/media_source_raw_frame.h"

namespace nembra {

// Receives every encoded sample, on the thread that called putCVPixelBuffer.
class H264EncoderDelegate {
 public:
  virtual ~H264EncoderDelegate() = default;
  virtual void compressedVideoDataReceived(const EncodedVideoSample& sample) = 0;
};

// libx264 set up for live use: baseline profile, a key frame every 2 x framerate frames, no
// frame reordering, average bitrate, real-time (zero-latency) tuning. A failed set-up is logged
// ("H.264 encoder initialization failed: " and the reason) and leaves the encoder without a
// session: pictures are then ignored, and isReady() and initializationError() tell the owner.
//
// Threading: any thread; pictures are encoded one at a time under the encoder's mutex.
class H264Encoder {
 public:
  // |backend| replaces libx264, for tests.
  H264Encoder(int width, int height, int bitrate, int framerate,
              std::unique_ptr<VideoEncoder> backend = nullptr);

  void setDelegate(std::weak_ptr<H264EncoderDelegate> delegate);

  // Encodes |pixelBuffer| stamped |timestamp| seconds (increasing) and hands the samples that are
  // ready to the delegate. Throws std::runtime_error with the encoder's message when encoding
  // fails.
  void putCVPixelBuffer(const RawMediaFrame& pixelBuffer, double timestamp);
  // Hands out what the encoder still holds, at the end of the stream.
  void flush();

  bool isReady() const { return backend_ != nullptr; }
  const std::string& initializationError() const { return initializationError_; }
  int width() const { return width_; }
  int height() const { return height_; }
  int bitrate() const { return bitrate_; }
  int framerate() const { return framerate_; }

 private:
  void deliver(std::vector<EncodedVideoSample>& samples);

  int width_;
  int height_;
  int bitrate_;
  int framerate_;
  std::mutex mutex_;
  std::unique_ptr<VideoEncoder> backend_;
  std::string initializationError_;
  std::weak_ptr<H264EncoderDelegate> delegate_;  // guarded by mutex_
};

}  // namespace nembra
