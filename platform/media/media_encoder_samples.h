// Encoded media on its way from an encoder or a demuxed file to the live streamer.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace nembra {

// One H.264 access unit with what the streamer needs besides the bytes: the parameter sets it
// places in front of every key frame, and the key-frame flag.
struct EncodedVideoSample {
  // The access unit's NAL units, each preceded by a 4-byte big-endian length. Parameter sets and
  // access unit delimiters are not in here: the streamer writes the sets itself.
  std::vector<uint8_t> data;
  std::vector<uint8_t> sps;  // NAL header byte included; empty when the source has none
  std::vector<uint8_t> pps;
  bool keyFrame = false;
  // Seconds from the start of the stream. Composition offsets are never sent, so sources with
  // reordered frames give their decode time here, which keeps the timestamps in order.
  double pts = 0.0;
};

// One raw AAC frame (no ADTS header) with the stream's AudioSpecificConfig.
struct EncodedAudioSample {
  std::vector<uint8_t> data;
  std::array<uint8_t, 2> asc{};
  double pts = 0.0;  // seconds from the start of the stream
};

}  // namespace nembra
