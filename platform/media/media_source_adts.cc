#include "platform/media/media_source_adts.h"

namespace nembra {

bool parseAdtsHeader(std::span<const uint8_t> bytes, AdtsFrame& frame) {
  if (bytes.size() < 7 || bytes[0] != 0xFF || (bytes[1] & 0xF0) != 0xF0) return false;
  const bool protectionAbsent = bytes[1] & 0x01;
  const unsigned profile = bytes[2] >> 6;  // audio object type minus one
  const unsigned rateIndex = (bytes[2] >> 2) & 0x0F;
  const unsigned channels = (bytes[2] & 0x01) << 2 | bytes[3] >> 6;
  const size_t frameLength =
      (size_t{bytes[3]} & 0x03) << 11 | size_t{bytes[4]} << 3 | bytes[5] >> 5;
  const size_t headerLength = protectionAbsent ? 7 : 9;
  if (rateIndex > 12 || frameLength < headerLength || frameLength > bytes.size()) return false;
  const unsigned objectType = profile + 1;
  frame.asc[0] = static_cast<uint8_t>(objectType << 3 | rateIndex >> 1);
  frame.asc[1] = static_cast<uint8_t>((rateIndex & 1) << 7 | channels << 3);
  frame.headerLength = headerLength;
  frame.frameLength = frameLength;
  return true;
}

}  // namespace nembra
