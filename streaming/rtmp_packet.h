// One RTMP message; the payload is the message body.
#pragma once

#include <cstdint>
#include <memory>

#include "streaming/media_frame.h"

namespace nembra {

struct RTMPPacketImplementation {
  RTMPPacketType packetType;
  RTMPChannel channel;
  uint64_t rtmpTimestamp = 0;    // milliseconds
  uint64_t packedTimestamp = 0;  // what the chunk header carries: absolute or delta
  uint32_t streamId;
};

// Copies share the header fields as well as the payload.
class RTMPPacket : public MediaFrame {
 public:
  RTMPPacket(MediaType type, MediaCodec codec, RTMPChannel channel, RTMPPacketType packetType,
             uint32_t streamId);

  RTMPPacketType PacketType() const { return header_->packetType; }
  void SetPacketType(RTMPPacketType packetType) { header_->packetType = packetType; }
  RTMPChannel Channel() const { return header_->channel; }
  void SetChannel(RTMPChannel channel) { header_->channel = channel; }
  uint64_t RTMPTimestamp() const { return header_->rtmpTimestamp; }
  void SetRTMPTimestamp(uint64_t timestamp) { header_->rtmpTimestamp = timestamp; }
  uint64_t RTMPPackedTimestamp() const { return header_->packedTimestamp; }
  void SetRTMPPackedTimestamp(uint64_t timestamp) { header_->packedTimestamp = timestamp; }
  uint32_t StreamID() const { return header_->streamId; }
  void SetStreamID(uint32_t streamId) { header_->streamId = streamId; }

 private:
  std::shared_ptr<RTMPPacketImplementation> header_;
};

}  // namespace nembra
