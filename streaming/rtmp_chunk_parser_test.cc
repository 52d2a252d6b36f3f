#include "streaming/rtmp_chunk_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "streaming/media_callback.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;

class ParserHarness {
 public:
  explicit ParserHarness(RTMPChannel channel)
      : parser(std::make_shared<MediaCallback<RTMPPacket>>(
                   [this](RTMPPacket packet) { packets.push_back(packet); }),
               channel) {}

  void Feed(Bytes header, size_t payloadSize, uint8_t fill = 0xAB) {
    RTMPChunk chunk(MediaType::Data, MediaCodec::None, RTMPChunkHeaderSize::Full);
    chunk.Data() = std::move(header);
    chunk.Data().insert(chunk.Data().end(), payloadSize, fill);
    parser.PutFrame(chunk);
  }

  std::vector<RTMPPacket> packets;
  RTMPChunkParser parser;
};

TEST(RTMPChunkParserTest, ReassemblesMessageFromThreeChunks) {
  ParserHarness harness(RTMPChannel::Command);
  harness.Feed({0x03, 0, 0, 0, 0, 0x01, 0x2C, 0x14, 0, 0, 0, 0}, 128, 1);
  EXPECT_EQ(harness.parser.GetNextChunkSize(), 128u);
  harness.Feed({0xC3}, 128, 2);
  EXPECT_TRUE(harness.packets.empty());
  EXPECT_EQ(harness.parser.GetNextChunkSize(), 44u);
  harness.Feed({0xC3}, 44, 3);
  ASSERT_EQ(harness.packets.size(), 1u);
  const RTMPPacket& packet = harness.packets[0];
  EXPECT_EQ(packet.PacketType(), RTMPPacketType::Command);
  EXPECT_EQ(packet.Channel(), RTMPChannel::Command);
  ASSERT_EQ(packet.Data().size(), 300u);
  EXPECT_EQ(packet.Data()[127], 1);
  EXPECT_EQ(packet.Data()[128], 2);
  EXPECT_EQ(packet.Data()[299], 3);
}

TEST(RTMPChunkParserTest, HeaderlessMessageInheritsLengthAndType) {
  ParserHarness harness(RTMPChannel::AudioAndData);
  harness.Feed({0x04, 0, 0, 5, 0, 0, 10, 0x08, 0, 0, 0, 0}, 10);
  EXPECT_EQ(harness.parser.GetNextChunkSize(), 10u);
  harness.Feed({0xC4}, 10);
  ASSERT_EQ(harness.packets.size(), 2u);
  EXPECT_EQ(harness.packets[1].PacketType(), RTMPPacketType::Audio);
  EXPECT_EQ(harness.packets[1].Data().size(), 10u);
}

TEST(RTMPChunkParserTest, ContinuationWithOtherThanFmt3Throws) {
  ParserHarness harness(RTMPChannel::Command);
  harness.Feed({0x03, 0, 0, 0, 0, 0x01, 0x2C, 0x14, 0, 0, 0, 0}, 128);
  try {
    harness.Feed({0x43, 0, 0, 0, 0, 0, 10, 0x14}, 10);
    FAIL() << "expected an error";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "wrong header size");
  }
}

TEST(RTMPChunkParserTest, ChunkLargerThanMessageIsRefused) {
  ParserHarness harness(RTMPChannel::Command);
  EXPECT_THROW(harness.Feed({0x03, 0, 0, 0, 0, 0, 4, 0x14, 0, 0, 0, 0}, 5), std::runtime_error);
}

TEST(RTMPChunkParserTest, StreamIdIsReadBigEndian) {
  ParserHarness harness(RTMPChannel::Command);
  harness.Feed({0x03, 0, 0, 0, 0, 0, 1, 0x14, 0x01, 0x00, 0x00, 0x00}, 1);
  ASSERT_EQ(harness.packets.size(), 1u);
  EXPECT_EQ(harness.packets[0].StreamID(), 0x01000000u);
}

TEST(RTMPChunkParserTest, Fmt1TimestampIsTakenAsAbsolute) {
  ParserHarness harness(RTMPChannel::AudioAndData);
  harness.Feed({0x04, 0, 0x03, 0xE8, 0, 0, 1, 0x08, 0, 0, 0, 0}, 1);
  harness.Feed({0x44, 0, 0, 40, 0, 0, 1, 0x08}, 1);
  ASSERT_EQ(harness.packets.size(), 2u);
  EXPECT_EQ(harness.packets[1].RTMPTimestamp(), 40u);
  EXPECT_DOUBLE_EQ(harness.packets[1].PTS(), 0.04);
}

TEST(RTMPChunkParserTest, Fmt0TimestampIsAddedToInheritedOne) {
  ParserHarness harness(RTMPChannel::AudioAndData);
  harness.Feed({0x04, 0, 0, 100, 0, 0, 1, 0x08, 0, 0, 0, 0}, 1);
  harness.Feed({0x04, 0, 0, 50, 0, 0, 1, 0x08, 0, 0, 0, 0}, 1);
  harness.Feed({0x84, 0, 0, 7}, 1);  // delta 7 taken as the timestamp
  harness.Feed({0x04, 0, 0, 1, 0, 0, 1, 0x08, 0, 0, 0, 0}, 1);
  ASSERT_EQ(harness.packets.size(), 4u);
  EXPECT_EQ(harness.packets[0].RTMPTimestamp(), 100u);
  EXPECT_EQ(harness.packets[1].RTMPTimestamp(), 150u);
  EXPECT_EQ(harness.packets[2].RTMPTimestamp(), 7u);
  // Inherited 7 + packed 7 (they differ from nothing: packed == rtmp), then + 1.
  EXPECT_EQ(harness.packets[3].RTMPTimestamp(), 8u);
}

TEST(RTMPChunkParserTest, ExtendedTimestampIsReadFromChunk) {
  ParserHarness harness(RTMPChannel::Command);
  harness.Feed({0x03, 0xFF, 0xFF, 0xFF, 0, 0, 2, 0x14, 0, 0, 0, 0, 0x01, 0x31, 0x2D, 0x00}, 2);
  ASSERT_EQ(harness.packets.size(), 1u);
  EXPECT_EQ(harness.packets[0].RTMPTimestamp(), 0x01312D00u);
}

}  // namespace
}  // namespace nembra
