#include "streaming/rtmp_chunk_demuxer.h"

#include <algorithm>
#include <string>

#include "streaming/stream_log.h"

namespace nembra {

RTMPChunkDemuxer::RTMPChunkDemuxer(std::shared_ptr<IReceiver<RTMPPacket>> packetReceiver)
    : packetReceiver_(std::move(packetReceiver)),
      chunkSize_(rtmp::kDefaultChunkSize),
      chunk_(MediaType::Data, MediaCodec::None, RTMPChunkHeaderSize::Full) {}

RTMPChunkDemuxer::~RTMPChunkDemuxer() = default;

void RTMPChunkDemuxer::SetChunkSize(uint64_t size) {
  chunkSize_.store(size, std::memory_order_relaxed);
  for (auto& slot : publishedParsers_) {
    if (RTMPChunkParser* parser = slot.load(std::memory_order_acquire)) {
      parser->SetChunkSize(size);
    }
  }
}

RTMPChunkParser& RTMPChunkDemuxer::ParserFor(RTMPChannel channel) {
  const auto index = static_cast<size_t>(channel);
  if (!parsers_[index]) {
    parsers_[index] = std::make_unique<RTMPChunkParser>(packetReceiver_, channel);
    // Unlike outgoing channels, a new incoming one follows the size already announced: the
    // peer chunks every stream with it, and framing depends on it.
    parsers_[index]->SetChunkSize(ChunkSize());
    publishedParsers_[index].store(parsers_[index].get(), std::memory_order_release);
    StreamLog::Write("new input channel created: " + std::to_string(index));
  }
  return *parsers_[index];
}

void RTMPChunkDemuxer::StartChunk(uint8_t basicHeader) {
  static const std::string kReceiving = "going to receive data";
  StreamLog::Write(kReceiving);
  const rtmp::BasicHeaderFields fields = rtmp::ParseBasicHeader(basicHeader);
  chunkParser_ = &ParserFor(fields.channel);
  headerLength_ = rtmp::ChunkHeaderLength(fields.fmt);
  chunkLength_ = 0;
  // One chunk buffer serves every chunk: its capacity stays, so framing allocates nothing once
  // the largest chunk has been seen.
  chunk_.SetHeaderSize(fields.fmt);
  chunk_.Data().clear();
  chunk_.Data().push_back(basicHeader);
  stage_ = Stage::MessageHeader;
}

size_t RTMPChunkDemuxer::PayloadLength() const {
  const std::vector<uint8_t>& header = chunk_.Data();
  if (rtmp::HasMessageLength(chunk_.HeaderSize())) {
    return std::min<uint64_t>(rtmp::MessageLengthField(header), ChunkSize());
  }
  return chunkParser_->GetNextChunkSize();
}

void RTMPChunkDemuxer::Consume(std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    if (stage_ == Stage::BasicHeader) {
      StartChunk(bytes.front());
      bytes = bytes.subspan(1);
    }
    std::vector<uint8_t>& data = chunk_.Data();
    if (stage_ == Stage::MessageHeader) {
      const size_t take = std::min(headerLength_ - data.size(), bytes.size());
      data.insert(data.end(), bytes.begin(), bytes.begin() + take);
      bytes = bytes.subspan(take);
      if (data.size() < headerLength_) {
        return;
      }
      // The buffer grows only as the announced bytes actually arrive.
      chunkLength_ = headerLength_ + PayloadLength();
      stage_ = Stage::Payload;
    }
    const size_t take = std::min(chunkLength_ - data.size(), bytes.size());
    data.insert(data.end(), bytes.begin(), bytes.begin() + take);
    bytes = bytes.subspan(take);
    if (data.size() < chunkLength_) {
      return;
    }
    // Reset before handing on: the parser or the packet receiver may throw. The parser reads
    // the chunk and keeps none of it, so the buffer is free again once PutFrame returns.
    stage_ = Stage::BasicHeader;
    chunkParser_->PutFrame(chunk_);
  }
}

}  // namespace nembra
