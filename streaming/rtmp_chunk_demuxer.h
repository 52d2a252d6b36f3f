// Frames a received byte stream into chunks and feeds them to one parser per chunk stream.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include "streaming/receiver.h"
#include "streaming/rtmp_chunk.h"
#include "streaming/rtmp_chunk_format.h"
#include "streaming/rtmp_chunk_parser.h"
#include "streaming/rtmp_packet.h"

namespace nembra {

// Takes the bytes in whatever pieces they arrive: the packets delivered are the same whether
// the stream comes whole, in fixed pieces or one byte at a time, and a partial chunk is kept
// until the rest arrives. Headers are framed by their fixed size for the fmt (12, 8, 4 or 1
// bytes, extended timestamps not provided for); the payload of a fmt 0 or 1 chunk is the
// header's length up to the chunk size, that of a fmt 2 or 3 chunk what the channel's parser
// expects. Only one-byte basic headers are understood, so at most 64 parsers exist.
//
// Memory is bounded by the 24-bit message length per channel. Errors (the parsers' "wrong
// header size" and the like) are thrown out of Consume; the demuxer is then unusable, as the
// byte stream has lost its framing.
//
// Driven by one receiving thread; SetChunkSize and ChunkSize may be called from any thread.
// Logs "going to receive data" at each chunk and "new input channel created: " with the
// channel number for each new parser.
class RTMPChunkDemuxer {
 public:
  // Complete messages go to |packetReceiver| on the thread that calls Consume.
  explicit RTMPChunkDemuxer(std::shared_ptr<IReceiver<RTMPPacket>> packetReceiver);
  ~RTMPChunkDemuxer();
  RTMPChunkDemuxer(const RTMPChunkDemuxer&) = delete;
  RTMPChunkDemuxer& operator=(const RTMPChunkDemuxer&) = delete;

  void Consume(std::span<const uint8_t> bytes);

  uint64_t ChunkSize() const { return chunkSize_.load(std::memory_order_relaxed); }
  // Also applies to every parser that exists; parsers created later start with this size.
  void SetChunkSize(uint64_t size);

 private:
  enum class Stage { BasicHeader, MessageHeader, Payload };

  RTMPChunkParser& ParserFor(RTMPChannel channel);
  void StartChunk(uint8_t basicHeader);
  size_t PayloadLength() const;

  std::shared_ptr<IReceiver<RTMPPacket>> packetReceiver_;
  std::atomic<uint64_t> chunkSize_;
  // Parsers are created by the receiving thread and published for SetChunkSize from others;
  // a slot, once filled, keeps its parser until the demuxer is destroyed.
  std::array<std::unique_ptr<RTMPChunkParser>, rtmp::kChannelSlots> parsers_;
  std::array<std::atomic<RTMPChunkParser*>, rtmp::kChannelSlots> publishedParsers_{};

  Stage stage_ = Stage::BasicHeader;
  RTMPChunk chunk_;  // the chunk being assembled, its header included
  RTMPChunkParser* chunkParser_ = nullptr;
  size_t headerLength_ = 0;
  size_t chunkLength_ = 0;  // header and payload, known once the header is complete
};

}  // namespace nembra
