// Turns PCM into AAC frames, each handed on with the stream's two-byte AudioSpecificConfig.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/media/media_encoder_audio.h"
#include "platform/media/media_source_raw_frame.h"

namespace nembra {

// Receives every AAC frame, on the thread that called putCMSampleBuffer.
class AACEncoderDelegate {
 public:
  virtual ~AACEncoderDelegate() = default;
  virtual void compressedAudioDataReceived(const std::vector<uint8_t>& data,
                                           std::array<uint8_t, 2> asc, double pts) = 0;
};

// The native FFmpeg AAC encoder, 1024 samples per frame. A failed set-up is logged ("AAC encoder
// initialization failed: " and the reason) and leaves the encoder without a converter: PCM is
// then ignored, and isReady() and initializationError() tell the owner.
//
// Threading: any thread, one call at a time under the encoder's mutex.
class AACEncoder {
 public:
  // |backend| replaces FFmpeg's encoder, for tests.
  AACEncoder(int sampleRate, int channels, int bitrate,
             std::unique_ptr<AudioEncoder> backend = nullptr);

  void setDelegate(std::weak_ptr<AACEncoderDelegate> delegate);

  // Encodes |sampleBuffer| and hands every complete AAC frame to the delegate with makeAsc's
  // config. Throws std::runtime_error with the encoder's message when encoding fails.
  void putCMSampleBuffer(const RawMediaFrame& sampleBuffer);
  void flush();

  bool isReady() const { return backend_ != nullptr; }
  const std::string& initializationError() const { return initializationError_; }
  const std::array<uint8_t, 2>& asc() const { return asc_; }
  int sampleRate() const { return sampleRate_; }
  int channels() const { return channels_; }
  int bitrate() const { return bitrate_; }

  // The MPEG-4 sampling-frequency index of |sampleRate|, 15 for rates outside the table.
  static int getSampleRateIndex(int sampleRate);
  // AAC-LC config bytes. Byte 0 keeps only the two low bits of (rate index >> 1): kept as is,
  // so indexes of 8 and above lose their high bit (8000 Hz gives 0x11, not 0x15).
  static std::array<uint8_t, 2> makeAsc(int sampleRateIndex, int channels);

 private:
  void deliver(std::vector<EncodedAudioSample>& samples);

  int sampleRate_;
  int channels_;
  int bitrate_;
  std::array<uint8_t, 2> asc_;
  std::mutex mutex_;
  std::unique_ptr<AudioEncoder> backend_;
  std::string initializationError_;
  std::weak_ptr<AACEncoderDelegate> delegate_;  // guarded by mutex_
};

}  // namespace nembra
