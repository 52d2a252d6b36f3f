#include "streaming/aac_encoder.h"

#include <stdexcept>

#include "platform/media/media_backend.h"
#include "streaming/stream_log.h"

namespace nembra {

AACEncoder::AACEncoder(int sampleRate, int channels, int bitrate,
                       std::unique_ptr<AudioEncoder> backend)
    : sampleRate_(sampleRate),
      channels_(channels),
      bitrate_(bitrate),
      asc_(makeAsc(getSampleRateIndex(sampleRate), channels)) {
  if (backend) {
    backend_ = std::move(backend);
    return;
  }
  OptionalError error;
  backend_ = createAacEncoder({sampleRate, channels, bitrate}, error);
  if (error) {
    initializationError_ = error->message;
    StreamLog::Write("AAC encoder initialization failed: " + error->message);
  }
}

int AACEncoder::getSampleRateIndex(int sampleRate) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
  for (int index = 0; index < 13; ++index) {
    if (kRates[index] == sampleRate) return index;
  }
  return 15;
}

std::array<uint8_t, 2> AACEncoder::makeAsc(int sampleRateIndex, int channels) {
  return {static_cast<uint8_t>(0x10 | ((sampleRateIndex >> 1) & 3)),
          static_cast<uint8_t>(((sampleRateIndex & 1) << 7) | ((channels & 15) << 3))};
}

void AACEncoder::setDelegate(std::weak_ptr<AACEncoderDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void AACEncoder::putCMSampleBuffer(const RawMediaFrame& sampleBuffer) {
  std::lock_guard lock(mutex_);
  if (!backend_) return;
  std::vector<EncodedAudioSample> samples;
  if (OptionalError error = backend_->encode(sampleBuffer, samples)) {
    throw std::runtime_error(error->message);
  }
  deliver(samples);
}

void AACEncoder::flush() {
  std::lock_guard lock(mutex_);
  if (!backend_) return;
  std::vector<EncodedAudioSample> samples;
  if (OptionalError error = backend_->flush(samples)) throw std::runtime_error(error->message);
  deliver(samples);
}

void AACEncoder::deliver(std::vector<EncodedAudioSample>& samples) {
  auto delegate = delegate_.lock();
  if (!delegate) return;
  for (const EncodedAudioSample& sample : samples) {
    delegate->compressedAudioDataReceived(sample.data, asc_, sample.pts);
  }
}

}  // namespace nembra
