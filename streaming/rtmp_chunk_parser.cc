#include "streaming/rtmp_chunk_parser.h"

#include <algorithm>
#include <stdexcept>

#include "streaming/bitstream_reader.h"
#include "streaming/rtmp_chunk_format.h"

namespace nembra {

RTMPChunkParser::RTMPChunkParser(std::shared_ptr<IReceiver<RTMPPacket>> next, RTMPChannel channel)
    : MediaTransformer(std::move(next)), chunkSize_(rtmp::kDefaultChunkSize), channel_(channel) {}

uint64_t RTMPChunkParser::GetNextChunkSize() const {
  if (State() == TransformResult::NeedMoreInput) {
    return std::min<uint64_t>(messageLength_ - bytesReceived_, ChunkSize());
  }
  return std::min<uint64_t>(ChunkSize(), previous_.length);
}

RTMPPacket RTMPChunkParser::CreateOutputFrame(const RTMPChunk&) {
  return RTMPPacket(MediaType::Data, MediaCodec::None, channel_, RTMPPacketType::Audio, 0);
}

TransformResult RTMPChunkParser::Transform(RTMPChunk& chunk, RTMPPacket& packet) {
  return State() == TransformResult::NeedMoreInput ? ContinueMessage(chunk, packet)
                                                   : StartNewMessage(chunk, packet);
}

TransformResult RTMPChunkParser::StartNewMessage(RTMPChunk& chunk, RTMPPacket& packet) {
  messageLength_ = 0;
  if (previous_.length != 0) {
    packet.SetPacketType(previous_.packetType);
    packet.SetRTMPTimestamp(previous_.rtmpTimestamp);
    packet.SetRTMPPackedTimestamp(previous_.packedTimestamp);
    if (previous_.packedTimestamp != previous_.rtmpTimestamp) {
      packet.SetRTMPTimestamp(previous_.rtmpTimestamp + previous_.packedTimestamp);
    }
    messageLength_ = previous_.length;
  }

  BitstreamReader reader(chunk.Data());
  const auto fmt = static_cast<RTMPChunkHeaderSize>(reader.GetBits(2));
  chunk.SetHeaderSize(fmt);
  reader.GetBits(6);  // the channel: this parser's own stands
  if (fmt != RTMPChunkHeaderSize::Continuation) {
    packet.SetRTMPPackedTimestamp(reader.GetBits(24));
    if (fmt != RTMPChunkHeaderSize::SameLengthAndType) {
      messageLength_ = reader.GetBits(24);
      packet.SetPacketType(static_cast<RTMPPacketType>(reader.GetBits(8)));
      if (fmt != RTMPChunkHeaderSize::SameStream) {
        packet.SetStreamID(static_cast<uint32_t>(reader.GetBits(32)));
      }
    }
  }
  if (packet.RTMPPackedTimestamp() >= rtmp::kExtendedTimestampMarker) {
    packet.SetRTMPPackedTimestamp(reader.GetBits(32));
  }
  if (fmt == RTMPChunkHeaderSize::Full) {
    packet.SetRTMPTimestamp(packet.RTMPTimestamp() + packet.RTMPPackedTimestamp());
  } else {
    packet.SetRTMPTimestamp(packet.RTMPPackedTimestamp());
  }
  packet.SetPTS(static_cast<double>(packet.RTMPTimestamp()) / 1000.0);

  previous_ = {packet.PacketType(), packet.RTMPTimestamp(), packet.RTMPPackedTimestamp(),
               messageLength_};
  bytesReceived_ = 0;
  packet.Data().clear();
  return AppendPayload(chunk, reader.Position(), packet);
}

TransformResult RTMPChunkParser::ContinueMessage(RTMPChunk& chunk, RTMPPacket& packet) {
  const auto fmt = rtmp::ParseBasicHeader(chunk.Data().empty() ? 0 : chunk.Data()[0]).fmt;
  chunk.SetHeaderSize(fmt);
  if (fmt != RTMPChunkHeaderSize::Continuation) {
    throw std::runtime_error("wrong header size");
  }
  // No extended timestamp is looked for in a continuation chunk.
  return AppendPayload(chunk, 1, packet);
}

TransformResult RTMPChunkParser::AppendPayload(const RTMPChunk& chunk, size_t offset,
                                               RTMPPacket& packet) {
  const std::vector<uint8_t>& data = chunk.Data();
  const size_t count = data.size() > offset ? data.size() - offset : 0;
  if (count > messageLength_ - bytesReceived_) {
    throw std::runtime_error("chunk payload exceeds its message length");
  }
  std::vector<uint8_t>& payload = packet.Data();
  if (payload.size() + count > payload.capacity()) {
    // Grows with the bytes that arrived, never past the announced length: a header that
    // announces 16 MB and sends a few bytes costs a few bytes.
    payload.reserve(
        std::min(messageLength_, std::max(payload.size() + count, 2 * payload.capacity())));
  }
  payload.insert(payload.end(), data.end() - static_cast<ptrdiff_t>(count), data.end());
  bytesReceived_ += count;
  return bytesReceived_ != messageLength_ ? TransformResult::NeedMoreInput
                                          : TransformResult::Complete;
}

}  // namespace nembra
