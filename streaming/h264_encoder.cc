#include "streaming/h264_encoder.h"

#include <stdexcept>
#include <vector>

#include "platform/media/media_backend.h"
#include "streaming/stream_log.h"

namespace nembra {

H264Encoder::H264Encoder(int width, int height, int bitrate, int framerate,
                         std::unique_ptr<VideoEncoder> backend)
    : width_(width), height_(height), bitrate_(bitrate), framerate_(framerate) {
  if (backend) {
    backend_ = std::move(backend);
    return;
  }
  OptionalError error;
  backend_ = createH264Encoder({width, height, bitrate, framerate}, error);
  if (error) {
    initializationError_ = error->message;
    StreamLog::Write("H.264 encoder initialization failed: " + error->message);
  }
}

void H264Encoder::setDelegate(std::weak_ptr<H264EncoderDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void H264Encoder::putCVPixelBuffer(const RawMediaFrame& pixelBuffer, double timestamp) {
  std::lock_guard lock(mutex_);
  if (!backend_) return;
  std::vector<EncodedVideoSample> samples;
  if (OptionalError error = backend_->encode(pixelBuffer, timestamp, samples)) {
    throw std::runtime_error(error->message);
  }
  deliver(samples);
}

void H264Encoder::flush() {
  std::lock_guard lock(mutex_);
  if (!backend_) return;
  std::vector<EncodedVideoSample> samples;
  if (OptionalError error = backend_->flush(samples)) throw std::runtime_error(error->message);
  deliver(samples);
}

void H264Encoder::deliver(std::vector<EncodedVideoSample>& samples) {
  auto delegate = delegate_.lock();
  if (!delegate) return;
  for (const EncodedVideoSample& sample : samples) delegate->compressedVideoDataReceived(sample);
}

}  // namespace nembra
