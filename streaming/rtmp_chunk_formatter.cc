#include "streaming/rtmp_chunk_formatter.h"

#include <algorithm>

#include "streaming/bitstream_writer.h"
#include "streaming/rtmp_chunk_format.h"

namespace nembra {

using rtmp::kExtendedTimestampMarker;

RTMPChunkFormatter::RTMPChunkFormatter(std::shared_ptr<IReceiver<RTMPChunk>> next,
                                       RTMPChannel channel)
    : MediaTransformer(std::move(next)), chunkSize_(rtmp::kDefaultChunkSize), channel_(channel) {}

RTMPChunk RTMPChunkFormatter::CreateOutputFrame(const RTMPPacket&) {
  return RTMPChunk(MediaType::Data, MediaCodec::None, RTMPChunkHeaderSize::Full);
}

TransformResult RTMPChunkFormatter::Transform(RTMPPacket& packet, RTMPChunk& chunk) {
  return State() == TransformResult::HasMoreOutput ? ContinueMessage(packet, chunk)
                                                   : StartNewMessage(packet, chunk);
}

TransformResult RTMPChunkFormatter::StartNewMessage(RTMPPacket& packet, RTMPChunk& chunk) {
  bytesWritten_ = 0;
  const uint64_t timestamp = rtmp::TimestampFromPTS(packet.PTS());
  uint64_t packedTimestamp = timestamp;
  const size_t payloadSize = packet.Data().size();

  RTMPChunkHeaderSize fmt = RTMPChunkHeaderSize::Full;
  if (previous_.payloadSize != 0 && previous_.timestamp < timestamp &&
      previous_.streamId == packet.StreamID()) {
    fmt = RTMPChunkHeaderSize::SameStream;
    packedTimestamp = timestamp - previous_.timestamp;
    if (previous_.packetType == packet.PacketType() && previous_.payloadSize == payloadSize) {
      fmt = packedTimestamp == previous_.packedTimestamp ? RTMPChunkHeaderSize::Continuation
                                                         : RTMPChunkHeaderSize::SameLengthAndType;
    }
  }
  packet.SetRTMPTimestamp(timestamp);
  packet.SetRTMPPackedTimestamp(packedTimestamp);
  chunk.SetHeaderSize(fmt);

  std::vector<uint8_t>& data = chunk.Data();
  data.reserve(rtmp::kMaxHeaderLength + rtmp::kExtendedTimestampLength +
               std::min<uint64_t>(payloadSize, std::max<uint64_t>(ChunkSize(), 1)));
  BitstreamWriter writer(data);
  writer.PutByte(rtmp::BasicHeader(fmt, channel_));
  if (fmt != RTMPChunkHeaderSize::Continuation) {
    writer.PutBits(std::min(packedTimestamp, kExtendedTimestampMarker), 24);
  }
  if (rtmp::HasMessageLength(fmt)) {
    writer.PutBits(payloadSize, 24);  // longer messages get a truncated length: not checked
    writer.PutByte(static_cast<uint8_t>(packet.PacketType()));
  }
  if (fmt == RTMPChunkHeaderSize::Full) {
    const uint32_t streamId = packet.StreamID();
    for (int shift = 0; shift < 32; shift += 8) {  // the one little-endian field
      writer.PutByte(static_cast<uint8_t>(streamId >> shift));
    }
  }
  if (packedTimestamp >= kExtendedTimestampMarker) {
    writer.PutBits(packedTimestamp, 32);
  }

  previous_ = {timestamp, packedTimestamp, packet.StreamID(), packet.PacketType(), payloadSize};
  return WritePayload(packet, chunk);
}

TransformResult RTMPChunkFormatter::ContinueMessage(const RTMPPacket& packet, RTMPChunk& chunk) {
  chunk.SetHeaderSize(RTMPChunkHeaderSize::Continuation);
  std::vector<uint8_t>& data = chunk.Data();
  data.reserve(
      1 + rtmp::kExtendedTimestampLength +
      std::min<uint64_t>(packet.Data().size() - bytesWritten_, std::max<uint64_t>(ChunkSize(), 1)));
  BitstreamWriter writer(data);
  writer.PutByte(rtmp::BasicHeader(RTMPChunkHeaderSize::Continuation, channel_));
  // Every chunk of a message with an extended timestamp repeats it.
  if (previous_.packedTimestamp >= kExtendedTimestampMarker) {
    writer.PutBits(previous_.packedTimestamp, 32);
  }
  return WritePayload(packet, chunk);
}

TransformResult RTMPChunkFormatter::WritePayload(const RTMPPacket& packet, RTMPChunk& chunk) {
  const std::vector<uint8_t>& payload = packet.Data();
  // A chunk size of 0 would never finish the message; such a size from a peer still moves on.
  const uint64_t chunkSize = std::max<uint64_t>(ChunkSize(), 1);
  const size_t count = std::min<uint64_t>(payload.size() - bytesWritten_, chunkSize);
  chunk.Data().insert(chunk.Data().end(), payload.begin() + bytesWritten_,
                      payload.begin() + bytesWritten_ + count);
  bytesWritten_ += count;
  return bytesWritten_ != payload.size() ? TransformResult::HasMoreOutput
                                         : TransformResult::Complete;
}

}  // namespace nembra
