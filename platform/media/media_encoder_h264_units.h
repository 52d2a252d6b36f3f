// H.264 NAL unit framing: Annex B start codes, length prefixes and the avcC record, as libx264,
// MP4 files and MPEG-TS files deliver them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace nembra::h264 {

inline constexpr uint8_t kNalSps = 7;
inline constexpr uint8_t kNalPps = 8;
inline constexpr uint8_t kNalAccessUnitDelimiter = 9;

using NalUnit = std::span<const uint8_t>;

inline uint8_t nalType(NalUnit unit) { return unit.empty() ? 0 : unit[0] & 0x1F; }

// The NAL units between 3- or 4-byte start codes; bytes before the first start code are
// ignored, and so are empty units.
std::vector<NalUnit> splitAnnexB(std::span<const uint8_t> bytes);

// The units of a length-prefixed access unit with |lengthSize| (1 to 4) byte lengths. False when
// a length runs past the end or the size is not 1 to 4; |units| then holds those read so far.
bool splitLengthPrefixed(std::span<const uint8_t> bytes, int lengthSize,
                         std::vector<NalUnit>& units);

// Appends |unit| with a 4-byte big-endian length.
void appendLengthPrefixed(std::vector<uint8_t>& out, NalUnit unit);

// The parameter sets and NAL length size of an avcC decoder configuration record.
struct AvcConfig {
  std::vector<std::vector<uint8_t>> sps;
  std::vector<std::vector<uint8_t>> pps;
  int lengthSize = 4;
};

// False when |record| is not a complete version-1 record.
bool parseAvcDecoderConfig(std::span<const uint8_t> record, AvcConfig& config);

// The version-1 record of |config|: profile, compatibility and level are bytes 1 to 3 of the
// first SPS (0 where it is shorter), the SPS count keeps its low 5 bits and the PPS count its
// low 8. REQUIRES: config.sps is not empty.
std::vector<uint8_t> writeAvcDecoderConfig(const AvcConfig& config);

// Converts |units| into 4-byte length-prefixed form, moving parameter sets into |sps| / |pps|
// (the last of each kind wins) and dropping access unit delimiters.
void repackAccessUnit(const std::vector<NalUnit>& units, std::vector<uint8_t>& out,
                      std::vector<uint8_t>& sps, std::vector<uint8_t>& pps);

}  // namespace nembra::h264
