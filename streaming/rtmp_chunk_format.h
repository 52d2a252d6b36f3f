// RTMP chunk wire format: constants and stateless header helpers shared by the formatter, the
// parser and the byte-stream demuxer.
//
// A chunk is a basic header (fmt in the top 2 bits, chunk stream id in the low 6), a message
// header whose size depends on fmt, an extended timestamp when the timestamp field is 0xFFFFFF,
// and at most "chunk size" payload bytes:
//
//   fmt  message header (big-endian unless noted)                      total header
//   0    timestamp 3, length 3, type 1, stream id 4 (little-endian)    12
//   1    timestamp delta 3, length 3, type 1                             8
//   2    timestamp delta 3                                               4
//   3    none                                                            1
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>

#include "streaming/media_types.h"

namespace nembra::rtmp {

inline constexpr uint64_t kDefaultChunkSize = 128;
// A timestamp field at this value means the real value follows as 32 bits.
inline constexpr uint64_t kExtendedTimestampMarker = 0xFFFFFF;
inline constexpr uint64_t kTimestampMask = 0x7FFFFFFF;
// The message length field is 24 bits: no message can announce more.
inline constexpr size_t kMaxMessageLength = 0xFFFFFF;
// Chunk stream ids index per-channel tables; the one-byte basic header reaches only 0..63.
inline constexpr size_t kChannelSlots = 256;
inline constexpr size_t kMaxHeaderLength = 12;
inline constexpr size_t kExtendedTimestampLength = 4;
// Where a fmt 0 or 1 header keeps its message length (after the basic header and timestamp).
inline constexpr size_t kMessageLengthOffset = 4;

inline constexpr size_t ChunkHeaderLength(RTMPChunkHeaderSize fmt) {
  constexpr std::array<size_t, 4> kLengths = {12, 8, 4, 1};
  return kLengths[static_cast<size_t>(fmt) & 3];
}

inline constexpr bool HasMessageLength(RTMPChunkHeaderSize fmt) {
  return fmt == RTMPChunkHeaderSize::Full || fmt == RTMPChunkHeaderSize::SameStream;
}

inline constexpr uint8_t BasicHeader(RTMPChunkHeaderSize fmt, RTMPChannel channel) {
  return static_cast<uint8_t>(static_cast<unsigned>(fmt) << 6 |
                              (static_cast<unsigned>(channel) & 0x3F));
}

struct BasicHeaderFields {
  RTMPChunkHeaderSize fmt;
  RTMPChannel channel;
};

inline constexpr BasicHeaderFields ParseBasicHeader(uint8_t byte) {
  return {static_cast<RTMPChunkHeaderSize>(byte >> 6), static_cast<RTMPChannel>(byte & 0x3F)};
}

// The 24-bit message length of a fmt 0 or 1 header. REQUIRES: header holds at least
// kMessageLengthOffset + 3 bytes.
inline uint32_t MessageLengthField(std::span<const uint8_t> header) {
  return uint32_t{header[kMessageLengthOffset]} << 16 |
         uint32_t{header[kMessageLengthOffset + 1]} << 8 | header[kMessageLengthOffset + 2];
}

// Milliseconds of a PTS in seconds, truncated toward zero and wrapped to 31 bits. Values that
// cannot be converted (negative, NaN) give 0; huge ones wrap exactly as the integer would.
inline uint64_t TimestampFromPTS(double pts) {
  const double milliseconds = std::trunc(pts * 1000.0);
  if (!(milliseconds > 0.0)) {
    return 0;
  }
  return static_cast<uint64_t>(std::fmod(milliseconds, double(kTimestampMask) + 1.0));
}

}  // namespace nembra::rtmp
