// Decodes a media file's first sound track to signed 16-bit mono PCM at a chosen rate, the
// input speech recognisers take. The samples arrive in blocks, so an hour of sound never sits
// in memory at once.
//
// Threading: a decoder keeps no state between calls; any thread may call it, several at once.
// |sink| runs on the calling thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

class AudioPcmDecoder {
 public:
  // Receives the next block; returning false stops the decoding (a Cancelled error).
  using Sink = std::function<bool(const int16_t* samples, size_t count)>;

  virtual ~AudioPcmDecoder() = default;
  // An Error of kind Media when |path| is not media, has no sound track or fails to decode.
  virtual OptionalError decode(const std::string& path, int sampleRate, const Sink& sink) = 0;
};

// The media plug-in's decoder.
std::unique_ptr<AudioPcmDecoder> makeAudioPcmDecoder();

}  // namespace nembra
