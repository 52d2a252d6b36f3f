// ADTS framing of AAC, as MPEG-TS and raw .aac files carry it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace nembra {

struct AdtsFrame {
  std::array<uint8_t, 2> asc{};  // the AudioSpecificConfig the header describes
  size_t headerLength = 0;       // 7, or 9 with a CRC
  size_t frameLength = 0;        // header included
};

// False when |bytes| does not begin with a complete ADTS header whose frame fits in |bytes|.
bool parseAdtsHeader(std::span<const uint8_t> bytes, AdtsFrame& frame);

}  // namespace nembra
