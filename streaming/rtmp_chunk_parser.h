// Reassembles the chunks of one incoming chunk stream into RTMP messages.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "streaming/media_transformer.h"
#include "streaming/rtmp_chunk.h"
#include "streaming/rtmp_packet.h"

namespace nembra {

// Fed one complete chunk at a time (header and payload, as framed by RTMPChunkDemuxer); a chunk
// either completes a message, which then goes to the next receiver, or leaves it open. Headers
// of fmt 1, 2 and 3 take what they omit from the previous message of the channel.
//
// Kept as is, because the client depends on nothing they change:
// - a fmt 0 timestamp is added to the inherited one while fmt 1, 2 and 3 timestamps are taken
//   as absolute (incoming timestamps are only logged);
// - the message stream id is read big-endian although it is written little-endian;
// - an extended timestamp is read out of the payload bytes, since chunks are framed by the
//   fixed header sizes.
//
// Driven by the receiving thread only; SetChunkSize may be called from any thread.
class RTMPChunkParser : public MediaTransformer<RTMPChunk, RTMPPacket> {
 public:
  RTMPChunkParser(std::shared_ptr<IReceiver<RTMPPacket>> next, RTMPChannel channel);

  uint64_t ChunkSize() const { return chunkSize_.load(std::memory_order_relaxed); }
  void SetChunkSize(uint64_t size) { chunkSize_.store(size, std::memory_order_relaxed); }
  RTMPChannel Channel() const { return channel_; }

  // Payload bytes of the next chunk when its header has no length field (fmt 2 and 3): the
  // rest of the open message up to the chunk size, or else the previous message's length up to
  // the chunk size.
  uint64_t GetNextChunkSize() const;

 protected:
  RTMPPacket CreateOutputFrame(const RTMPChunk& chunk) override;
  // Throws std::runtime_error("wrong header size") for a chunk other than fmt 3 while a
  // message is open. A chunk that carries more payload than its message has left (never the
  // case for chunks framed by RTMPChunkDemuxer) is refused with an error as well.
  TransformResult Transform(RTMPChunk& chunk, RTMPPacket& packet) override;

 private:
  struct PreviousMessage {
    RTMPPacketType packetType = RTMPPacketType::Audio;
    uint64_t rtmpTimestamp = 0;
    uint64_t packedTimestamp = 0;
    size_t length = 0;  // 0: nothing to inherit
  };

  TransformResult StartNewMessage(RTMPChunk& chunk, RTMPPacket& packet);
  TransformResult ContinueMessage(RTMPChunk& chunk, RTMPPacket& packet);
  TransformResult AppendPayload(const RTMPChunk& chunk, size_t offset, RTMPPacket& packet);

  std::atomic<uint64_t> chunkSize_;
  PreviousMessage previous_;
  size_t messageLength_ = 0;  // of the open message
  uint64_t bytesReceived_ = 0;
  RTMPChannel channel_;
};

}  // namespace nembra
