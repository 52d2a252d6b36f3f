// The AudioSpecificConfig of an AAC stream (ISO/IEC 14496-3), read as far as the output rate,
// the channel configuration and explicitly signalled SBR / parametric stereo.
//
// Threading: stateless; any thread.
#pragma once

#include <cstdint>
#include <span>

namespace nembra {

struct AacAudioConfig {
  int objectType = 0;  // the core coder's, below any SBR or PS signalling
  int sampleRate = 0;  // the output rate: the SBR rate when signalled
  int channelConfiguration = 0;
  bool parametricStereo = false;
};

// False when |bytes| ends before the fields above or names no usable rate.
bool parseAudioSpecificConfig(std::span<const uint8_t> bytes, AacAudioConfig& config);

// What an AAC decoder puts out for a channel configuration; 0 when a program config element
// in the stream decides.
int aacChannelsOf(int configuration);

}  // namespace nembra
