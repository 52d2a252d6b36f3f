// Feeds arbitrary bytes to the chunk demuxer twice, whole and split at points chosen by the
// input, and requires the same packets and the same outcome. Set-chunk-size messages are
// obeyed as the client does, so hostile sizes (0, huge) are covered too.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "streaming/media_callback.h"
#include "streaming/rtmp_chunk_demuxer.h"
#include "streaming/stream_log.h"

namespace {

struct Packet {
  int channel;
  int type;
  uint64_t timestamp;
  std::vector<uint8_t> payload;
  bool operator==(const Packet&) const = default;
};

struct Outcome {
  std::vector<Packet> packets;
  std::string error;
  bool operator==(const Outcome&) const = default;
};

Outcome Run(std::span<const uint8_t> stream, std::span<const uint8_t> splits) {
  Outcome outcome;
  nembra::RTMPChunkDemuxer* demuxerPointer = nullptr;
  nembra::RTMPChunkDemuxer demuxer(
      std::make_shared<nembra::MediaCallback<nembra::RTMPPacket>>([&](nembra::RTMPPacket packet) {
        if (packet.PacketType() == nembra::RTMPPacketType::SetChunkSize) {
          nembra::BitstreamReader reader(packet.Data());
          demuxerPointer->SetChunkSize(reader.GetBits(32));
        }
        outcome.packets.push_back({static_cast<int>(packet.Channel()),
                                   static_cast<int>(packet.PacketType()), packet.RTMPTimestamp(),
                                   packet.Data()});
      }));
  demuxerPointer = &demuxer;
  try {
    size_t at = 0;
    size_t split = 0;
    while (at < stream.size()) {
      size_t piece = stream.size() - at;
      if (!splits.empty()) {
        piece = std::min<size_t>(piece, 1 + splits[split++ % splits.size()]);
      }
      demuxer.Consume(stream.subspan(at, piece));
      at += piece;
    }
  } catch (const std::runtime_error& error) {
    outcome.error = error.what();
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    nembra::StreamLog::SetSink([](const std::string&) {});
    return true;
  }();
  (void)quiet;
  // The first byte says how many split sizes follow; the rest is the byte stream.
  if (size == 0) return 0;
  const size_t splitCount = std::min<size_t>(data[0] % 16, size - 1);
  const std::span<const uint8_t> splits(data + 1, splitCount);
  const std::span<const uint8_t> stream(data + 1 + splitCount, size - 1 - splitCount);
  if (!(Run(stream, {}) == Run(stream, splits))) {
    std::abort();
  }
  return 0;
}
