#include "platform/media/aac_audio_config.h"

#include <iterator>

namespace nembra {

namespace {

// Reads an AudioSpecificConfig bit by bit; a read past the end yields 0 and clears ok().
class BitReader {
 public:
  explicit BitReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  bool ok() const { return ok_; }
  uint32_t read(int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
      if (position_ >= bytes_.size() * 8) {
        ok_ = false;
        return 0;
      }
      value = value << 1 | ((bytes_[position_ / 8] >> (7 - position_ % 8)) & 1);
      ++position_;
    }
    return value;
  }

 private:
  std::span<const uint8_t> bytes_;
  size_t position_ = 0;
  bool ok_ = true;
};

int readObjectType(BitReader& bits) {
  const int type = static_cast<int>(bits.read(5));
  return type == 31 ? 32 + static_cast<int>(bits.read(6)) : type;
}

int readSampleRate(BitReader& bits) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
  const uint32_t index = bits.read(4);
  if (index == 15) return static_cast<int>(bits.read(24));
  return index < std::size(kRates) ? kRates[index] : 0;
}

}  // namespace

bool parseAudioSpecificConfig(std::span<const uint8_t> bytes, AacAudioConfig& config) {
  constexpr int kSbr = 5;
  constexpr int kPs = 29;
  BitReader bits(bytes);
  config.objectType = readObjectType(bits);
  config.sampleRate = readSampleRate(bits);
  config.channelConfiguration = static_cast<int>(bits.read(4));
  if (config.objectType == kSbr || config.objectType == kPs) {
    config.parametricStereo = config.objectType == kPs;
    config.sampleRate = readSampleRate(bits);
    config.objectType = readObjectType(bits);
  }
  return bits.ok() && config.sampleRate > 0;
}

int aacChannelsOf(int configuration) {
  static constexpr int kChannels[] = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8};
  return configuration >= 0 && configuration < static_cast<int>(std::size(kChannels))
             ? kChannels[configuration]
             : 0;
}

}  // namespace nembra
