#include "streaming/rtmp_packet.h"

namespace nembra {

RTMPPacket::RTMPPacket(MediaType type, MediaCodec codec, RTMPChannel channel,
                       RTMPPacketType packetType, uint32_t streamId)
    : MediaFrame(type, codec),
      header_(std::make_shared<RTMPPacketImplementation>(
          RTMPPacketImplementation{packetType, channel, 0, 0, streamId})) {}

}  // namespace nembra
