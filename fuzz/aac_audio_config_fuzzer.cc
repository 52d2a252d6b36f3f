// Reads arbitrary bytes as an AAC AudioSpecificConfig. One that reads names a positive rate and
// a channel configuration of four bits; every prefix of it that reads says the same.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/media/aac_audio_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes(data, size);
  nembra::AacAudioConfig config;
  if (!nembra::parseAudioSpecificConfig(bytes, config)) return 0;
  if (config.sampleRate <= 0 || config.channelConfiguration < 0 ||
      config.channelConfiguration > 15 || nembra::aacChannelsOf(config.channelConfiguration) < 0) {
    std::abort();
  }
  // The fields end within the first 11 bytes; more bytes change nothing.
  if (size > 11) {
    nembra::AacAudioConfig prefix;
    if (!nembra::parseAudioSpecificConfig(bytes.first(11), prefix) ||
        prefix.sampleRate != config.sampleRate || prefix.objectType != config.objectType ||
        prefix.channelConfiguration != config.channelConfiguration) {
      std::abort();
    }
  }
  return 0;
}
