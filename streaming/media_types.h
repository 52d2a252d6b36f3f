// Small enumerations that travel through the streaming pipeline with every frame. Their numeric
// values are compared across stages and several are copied onto the wire, so they are fixed.
#pragma once

#include <cstdint>

namespace nembra {

enum class MediaType : uint8_t {
  Data = 0,  // script data, metadata and protocol control
  Video = 1,
  Audio = 2,
};

enum class MediaCodec : uint8_t {
  None = 0,  // data and control messages
  H264 = 1,
  AAC = 2,
};

// The RTMP chunk stream id. Any value 0..255 may be held; the named ones are those the client
// uses. Only ids 2..63 fit the one-byte basic header that is written and understood.
enum class RTMPChannel : uint8_t {
  Control = 2,  // protocol control and user control
  Command = 3,
  AudioAndData = 4,
  Video = 6,
  Publish = 8,
};

// The RTMP message type id. Other values pass through the parser untouched.
enum class RTMPPacketType : uint8_t {
  SetChunkSize = 1,
  UserControl = 4,
  Audio = 8,
  Video = 9,
  Data = 18,
  Command = 20,
};

// The chunk header format (fmt): how much of the message header a chunk repeats.
enum class RTMPChunkHeaderSize : uint8_t {
  Full = 0,               // timestamp, length, type and stream id
  SameStream = 1,         // timestamp delta, length and type
  SameLengthAndType = 2,  // timestamp delta only
  Continuation = 3,       // no message header
};

enum class FLVTagType : uint8_t {
  Audio = 8,
  Video = 9,
  ScriptData = 18,
};

struct MediaDescriptor {
  MediaDescriptor(MediaType type, MediaCodec codec) : type(type), codec(codec) {}

  MediaType type;
  MediaCodec codec;
};

}  // namespace nembra
