#include "streaming/rtmp_chunk_demuxer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "streaming/media_callback.h"
#include "streaming/rtmp_chunk_formatter.h"
#include "streaming/testing/stream_log_capture.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;

struct Received {
  RTMPChannel channel;
  RTMPPacketType type;
  uint64_t timestamp;
  uint32_t streamId;
  Bytes payload;
  bool operator==(const Received&) const = default;
};

class DemuxerHarness {
 public:
  DemuxerHarness()
      : demuxer(std::make_shared<MediaCallback<RTMPPacket>>([this](RTMPPacket packet) {
          packets.push_back({packet.Channel(), packet.PacketType(), packet.RTMPTimestamp(),
                             packet.StreamID(), packet.Data()});
        })) {}

  std::vector<Received> packets;
  RTMPChunkDemuxer demuxer;
};

// Messages as sent, and the byte stream carrying them: the chunks of messages on different
// channels interleaved at random, each channel's chunks in order.
struct Stream {
  std::vector<Received> sent;
  Bytes bytes;
  uint64_t chunkSize;
};

Stream RandomStream(uint32_t seed) {
  std::mt19937 random(seed);
  const uint64_t chunkSizes[] = {1, 7, 128, 4096};
  Stream stream;
  stream.chunkSize = chunkSizes[random() % 4];
  const RTMPChannel channels[] = {RTMPChannel::Command, RTMPChannel::AudioAndData,
                                  RTMPChannel::Video, static_cast<RTMPChannel>(63)};
  std::vector<std::unique_ptr<RTMPChunkFormatter>> formatters;
  std::vector<std::deque<Bytes>> pending(4);
  std::vector<double> clock(4, 0.0);
  for (int c = 0; c < 4; ++c) {
    auto& queue = pending[c];
    formatters.push_back(std::make_unique<RTMPChunkFormatter>(
        std::make_shared<MediaCallback<RTMPChunk>>(
            [&queue](RTMPChunk chunk) { queue.push_back(chunk.Data()); }),
        channels[c]));
    formatters.back()->SetChunkSize(stream.chunkSize);
  }
  const RTMPPacketType types[] = {RTMPPacketType::Audio, RTMPPacketType::Video,
                                  RTMPPacketType::Command};
  for (int i = 0; i < 60; ++i) {
    const int c = static_cast<int>(random() % 4);
    // Repeated sizes, types and steps make fmt 2 and 3 headers common.
    const size_t size = random() % 3 == 0 ? 0 : (random() % 2 ? 10 : random() % 9000);
    clock[c] += random() % 2 ? 0.02 : (random() % 100) / 1000.0;
    RTMPPacket packet(MediaType::Data, MediaCodec::None, channels[c], types[random() % 3 / 2],
                      random() % 4 == 0 ? 2 : 1);
    packet.SetPTS(clock[c]);
    for (size_t b = 0; b < size; ++b) {
      packet.Data().push_back(static_cast<uint8_t>(random()));
    }
    formatters[c]->PutFrame(packet);
    stream.sent.push_back({channels[c], packet.PacketType(), 0, 0, packet.Data()});
    // Interleave: flush a random channel's chunks one at a time.
    while (random() % 3 != 0) {
      auto& queue = pending[random() % 4];
      if (!queue.empty()) {
        stream.bytes.insert(stream.bytes.end(), queue.front().begin(), queue.front().end());
        queue.pop_front();
      }
    }
  }
  for (auto& queue : pending) {
    for (const Bytes& chunk : queue) {
      stream.bytes.insert(stream.bytes.end(), chunk.begin(), chunk.end());
    }
  }
  return stream;
}

enum class Feed { Whole, FixedPieces, RandomSplits, ByteAtATime };

std::vector<Received> Demux(const Stream& stream, Feed feed, uint32_t seed) {
  DemuxerHarness harness;
  harness.demuxer.SetChunkSize(stream.chunkSize);
  std::mt19937 random(seed);
  const std::span<const uint8_t> all(stream.bytes);
  size_t at = 0;
  while (at < all.size()) {
    size_t piece = all.size() - at;
    if (feed == Feed::FixedPieces) {
      piece = std::min<size_t>(piece, 100);
    } else if (feed == Feed::RandomSplits) {
      piece = std::min<size_t>(piece, 1 + random() % 300);
    } else if (feed == Feed::ByteAtATime) {
      piece = 1;
    }
    harness.demuxer.Consume(all.subspan(at, piece));
    at += piece;
  }
  return harness.packets;
}

class DemuxerRoundTripTest : public ::testing::TestWithParam<uint32_t> {};

TEST_P(DemuxerRoundTripTest, EveryFeedGivesTheMessagesThatWereSent) {
  StreamLogCapture quiet;
  const Stream stream = RandomStream(GetParam());
  const std::vector<Received> whole = Demux(stream, Feed::Whole, 0);

  // Per channel, payloads and types arrive as sent.
  ASSERT_EQ(whole.size(), stream.sent.size());
  for (RTMPChannel channel : {RTMPChannel::Command, RTMPChannel::AudioAndData, RTMPChannel::Video,
                              static_cast<RTMPChannel>(63)}) {
    std::vector<std::pair<RTMPPacketType, Bytes>> sent, received;
    for (const Received& r : stream.sent) {
      if (r.channel == channel) sent.emplace_back(r.type, r.payload);
    }
    for (const Received& r : whole) {
      if (r.channel == channel) received.emplace_back(r.type, r.payload);
    }
    EXPECT_EQ(received, sent) << "channel " << static_cast<int>(channel);
  }

  EXPECT_EQ(Demux(stream, Feed::FixedPieces, 0), whole);
  EXPECT_EQ(Demux(stream, Feed::RandomSplits, GetParam()), whole);
  EXPECT_EQ(Demux(stream, Feed::RandomSplits, GetParam() + 1000), whole);
  EXPECT_EQ(Demux(stream, Feed::ByteAtATime, 0), whole);
}

INSTANTIATE_TEST_SUITE_P(Seeds, DemuxerRoundTripTest, ::testing::Range(1u, 13u));

TEST(RTMPChunkDemuxerTest, EveryPrefixYieldsOnlyCompleteMessages) {
  StreamLogCapture quiet;
  Stream stream = RandomStream(99);
  const std::vector<Received> all = Demux(stream, Feed::Whole, 0);
  const size_t step = stream.bytes.size() / 150 + 1;
  for (size_t length = 0; length < stream.bytes.size(); length += step) {
    DemuxerHarness harness;
    harness.demuxer.SetChunkSize(stream.chunkSize);
    harness.demuxer.Consume(std::span<const uint8_t>(stream.bytes).first(length));
    ASSERT_LE(harness.packets.size(), all.size());
    EXPECT_TRUE(std::equal(harness.packets.begin(), harness.packets.end(), all.begin()));
  }
}

TEST(RTMPChunkDemuxerTest, LogsEachChunkAndEachNewChannel) {
  StreamLogCapture log;
  DemuxerHarness harness;
  const Bytes bytes = {0x02, 0, 0, 0,    0,    0,    4, 0x01, 0,    0,   0,
                       0,    0, 0, 0x10, 0x00, 0xC2, 0, 0,    0x10, 0x00};
  harness.demuxer.Consume(bytes);
  EXPECT_THAT(log.Lines(),
              ::testing::ElementsAre("going to receive data", "new input channel created: 2",
                                     "going to receive data"));
  EXPECT_EQ(harness.packets.size(), 2u);
}

TEST(RTMPChunkDemuxerTest, ChannelCreatedAfterSizeChangeFramesWithNewSize) {
  StreamLogCapture quiet;
  DemuxerHarness harness;
  harness.demuxer.SetChunkSize(4096);
  Bytes bytes = {0x05, 0, 0, 0, 0, 0x01, 0xF4, 0x14, 0, 0, 0, 0};
  bytes.insert(bytes.end(), 500, 0x11);
  bytes.push_back(0xC5);  // a second 500-byte message, headerless
  bytes.insert(bytes.end(), 500, 0x22);
  harness.demuxer.Consume(bytes);
  ASSERT_EQ(harness.packets.size(), 2u);
  EXPECT_EQ(harness.packets[1].payload, Bytes(500, 0x22));
}

TEST(RTMPChunkDemuxerTest, ParserErrorsPropagate) {
  StreamLogCapture quiet;
  DemuxerHarness harness;
  Bytes bytes = {0x03, 0, 0, 0, 0, 0x01, 0x00, 0x14, 0, 0, 0, 0};
  bytes.insert(bytes.end(), 128, 0);
  bytes.insert(bytes.end(), {0x83, 0, 0, 0});  // fmt 2 inside an open message
  bytes.insert(bytes.end(), 128, 0);
  EXPECT_THROW(harness.demuxer.Consume(bytes), std::runtime_error);
}

}  // namespace
}  // namespace nembra
