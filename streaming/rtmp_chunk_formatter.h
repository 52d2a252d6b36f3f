// Cuts outgoing RTMP messages into chunks for one chunk stream.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "streaming/media_transformer.h"
#include "streaming/rtmp_chunk.h"
#include "streaming/rtmp_packet.h"

namespace nembra {

// One formatter per channel. It remembers the previous message of its channel to choose the
// shortest header: fmt 1 when the timestamp grows on the same stream, fmt 2 when type and
// length repeat too, fmt 3 when the delta repeats as well. A timestamp that does not grow or a
// new stream id always gives a full header, so two messages with one timestamp both carry fmt 0.
//
// Each input packet yields one chunk per chunk size of payload (at least one, header only for
// an empty message), handed to the next receiver in order before PutFrame returns. The packet's
// RTMP and packed timestamps are set from its PTS on the way through.
//
// Called by one sender at a time (the packet stream's send lock); SetChunkSize may be called
// from any thread and applies from the next chunk, also in the middle of a message.
class RTMPChunkFormatter : public MediaTransformer<RTMPPacket, RTMPChunk> {
 public:
  RTMPChunkFormatter(std::shared_ptr<IReceiver<RTMPChunk>> next, RTMPChannel channel);

  uint64_t ChunkSize() const { return chunkSize_.load(std::memory_order_relaxed); }
  void SetChunkSize(uint64_t size) { chunkSize_.store(size, std::memory_order_relaxed); }
  RTMPChannel Channel() const { return channel_; }

 protected:
  RTMPChunk CreateOutputFrame(const RTMPPacket& packet) override;
  TransformResult Transform(RTMPPacket& packet, RTMPChunk& chunk) override;

 private:
  // The header fields of the last message, copied rather than kept as a handle: a caller may
  // reuse or alter a packet once it has been sent.
  struct PreviousMessage {
    uint64_t timestamp = 0;
    uint64_t packedTimestamp = 0;
    uint32_t streamId = 0;
    RTMPPacketType packetType = RTMPPacketType::Audio;
    size_t payloadSize = 0;  // 0: no previous message (an empty one does not count either)
  };

  TransformResult StartNewMessage(RTMPPacket& packet, RTMPChunk& chunk);
  TransformResult ContinueMessage(const RTMPPacket& packet, RTMPChunk& chunk);
  TransformResult WritePayload(const RTMPPacket& packet, RTMPChunk& chunk);

  std::atomic<uint64_t> chunkSize_;
  uint64_t bytesWritten_ = 0;
  PreviousMessage previous_;
  RTMPChannel channel_;
};

}  // namespace nembra
