#include "streaming/rtmp_chunk_formatter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "streaming/media_callback.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::ElementsAre;

struct Message {
  double pts;
  size_t size;
  RTMPPacketType type = RTMPPacketType::Audio;
  uint32_t streamId = 1;
};

RTMPPacket MakePacket(RTMPChannel channel, const Message& message) {
  RTMPPacket packet(MediaType::Audio, MediaCodec::AAC, channel, message.type, message.streamId);
  packet.SetPTS(message.pts);
  packet.Data().resize(message.size);
  for (size_t i = 0; i < message.size; ++i) {
    packet.Data()[i] = static_cast<uint8_t>(i * 7 + 1);
  }
  return packet;
}

class FormatterHarness {
 public:
  explicit FormatterHarness(RTMPChannel channel)
      : formatter(std::make_shared<MediaCallback<RTMPChunk>>(
                      [this](RTMPChunk chunk) { chunks.push_back(chunk); }),
                  channel) {}

  // The header of each chunk produced, i.e. its bytes without |payloadSizes| trailing payload.
  std::vector<Bytes> Headers(const std::vector<size_t>& payloadSizes) const {
    std::vector<Bytes> headers;
    for (size_t i = 0; i < chunks.size(); ++i) {
      const Bytes& data = chunks[i].Data();
      headers.emplace_back(data.begin(), data.end() - static_cast<ptrdiff_t>(payloadSizes[i]));
    }
    return headers;
  }

  std::vector<RTMPChunk> chunks;
  RTMPChunkFormatter formatter;
};

TEST(RTMPChunkFormatterTest, CreatesFullHeaderForFirstCommand) {
  FormatterHarness harness(RTMPChannel::Command);
  RTMPPacket packet = MakePacket(RTMPChannel::Command, {0.0, 100, RTMPPacketType::Command, 0});
  harness.formatter.PutFrame(packet);
  ASSERT_EQ(harness.chunks.size(), 1u);
  Bytes expected = {0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x64, 0x14, 0x00, 0x00, 0x00, 0x00};
  expected.insert(expected.end(), packet.Data().begin(), packet.Data().end());
  EXPECT_EQ(harness.chunks[0].Data(), expected);
  EXPECT_EQ(harness.chunks[0].HeaderSize(), RTMPChunkHeaderSize::Full);
}

TEST(RTMPChunkFormatterTest, CutsMessageAtChunkSizeWithOneByteContinuations) {
  FormatterHarness harness(RTMPChannel::Command);
  RTMPPacket packet = MakePacket(RTMPChannel::Command, {0.0, 300, RTMPPacketType::Command, 0});
  harness.formatter.PutFrame(packet);
  ASSERT_EQ(harness.chunks.size(), 3u);
  EXPECT_EQ(harness.chunks[0].Data().size(), 12u + 128);
  EXPECT_EQ(harness.chunks[1].Data().size(), 1u + 128);
  EXPECT_EQ(harness.chunks[2].Data().size(), 1u + 44);
  EXPECT_EQ(harness.chunks[1].Data()[0], 0xC3);
  EXPECT_EQ(harness.chunks[2].Data()[0], 0xC3);
  Bytes payload;
  for (size_t i = 0; i < 3; ++i) {
    const Bytes& data = harness.chunks[i].Data();
    payload.insert(payload.end(), data.begin() + (i == 0 ? 12 : 1), data.end());
  }
  EXPECT_EQ(payload, packet.Data());
}

struct HeaderCase {
  const char* name;
  std::vector<Message> messages;
  std::vector<Bytes> headers;  // one per message (each message fits one chunk)
};

class HeaderSelectionTest : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(HeaderSelectionTest, ChoosesShortestHeaderFromPreviousMessage) {
  FormatterHarness harness(RTMPChannel::AudioAndData);
  std::vector<size_t> sizes;
  for (const Message& message : GetParam().messages) {
    harness.formatter.PutFrame(MakePacket(RTMPChannel::AudioAndData, message));
    sizes.push_back(message.size);
  }
  EXPECT_EQ(harness.Headers(sizes), GetParam().headers);
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, HeaderSelectionTest,
    ::testing::Values(
        HeaderCase{"AudioDeltasCompress",
                   {{0.0, 10}, {0.023, 12}, {0.043, 12}, {0.063, 12}, {0.086, 12}},
                   {{0x04, 0, 0, 0, 0, 0, 10, 0x08, 1, 0, 0, 0},
                    {0x44, 0, 0, 23, 0, 0, 12, 0x08},
                    {0x84, 0, 0, 20},
                    {0xC4},
                    {0x84, 0, 0, 23}}},
        HeaderCase{"EqualTimestampsBothFull",
                   {{0.5, 10}, {0.5, 10}},
                   {{0x04, 0, 0x01, 0xF4, 0, 0, 10, 0x08, 1, 0, 0, 0},
                    {0x04, 0, 0x01, 0xF4, 0, 0, 10, 0x08, 1, 0, 0, 0}}},
        HeaderCase{"EarlierTimestampIsAbsolute",
                   {{1.0, 10}, {0.5, 10}},
                   {{0x04, 0, 0x03, 0xE8, 0, 0, 10, 0x08, 1, 0, 0, 0},
                    {0x04, 0, 0x01, 0xF4, 0, 0, 10, 0x08, 1, 0, 0, 0}}},
        HeaderCase{
            "NewStreamIdIsFull",
            {{0.0, 10, RTMPPacketType::Audio, 1}, {0.01, 10, RTMPPacketType::Audio, 0x01020304}},
            {{0x04, 0, 0, 0, 0, 0, 10, 0x08, 1, 0, 0, 0},
             {0x04, 0, 0, 10, 0, 0, 10, 0x08, 0x04, 0x03, 0x02, 0x01}}},
        HeaderCase{"NewTypeOrLengthKeepsLengthField",
                   {{0.0, 10}, {0.01, 10, RTMPPacketType::Data}, {0.02, 11, RTMPPacketType::Data}},
                   {{0x04, 0, 0, 0, 0, 0, 10, 0x08, 1, 0, 0, 0},
                    {0x44, 0, 0, 10, 0, 0, 10, 0x12},
                    {0x44, 0, 0, 10, 0, 0, 11, 0x12}}},
        HeaderCase{"FirstDeltaEqualToAbsoluteTimestampRepeats",
                   {{0.01, 10}, {0.02, 10}},
                   {{0x04, 0, 0, 10, 0, 0, 10, 0x08, 1, 0, 0, 0}, {0xC4}}},
        HeaderCase{"EmptyMessageLeavesNoPrevious",
                   {{0.0, 0}, {0.01, 0}},
                   {{0x04, 0, 0, 0, 0, 0, 0, 0x08, 1, 0, 0, 0},
                    {0x04, 0, 0, 10, 0, 0, 0, 0x08, 1, 0, 0, 0}}},
        HeaderCase{"TimestampWrapsAt31Bits",
                   // 4194304.5 s = 4194304500 ms, which is 2046820852 once masked.
                   {{4194304.5, 1}},
                   {{0x04, 0xFF, 0xFF, 0xFF, 0, 0, 1, 0x08, 1, 0, 0, 0, 0x7A, 0x00, 0x01, 0xF4}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RTMPChunkFormatterTest, ExtendedTimestampRepeatsOnEveryContinuation) {
  FormatterHarness harness(RTMPChannel::Command);
  RTMPPacket packet = MakePacket(RTMPChannel::Command, {20000.0, 300, RTMPPacketType::Command, 0});
  harness.formatter.PutFrame(packet);
  EXPECT_EQ(packet.RTMPTimestamp(), 0x01312D00u);
  EXPECT_THAT(
      harness.Headers({128, 128, 44}),
      ElementsAre(
          Bytes{0x03, 0xFF, 0xFF, 0xFF, 0x00, 0x01, 0x2C, 0x14, 0, 0, 0, 0, 0x01, 0x31, 0x2D, 0x00},
          Bytes{0xC3, 0x01, 0x31, 0x2D, 0x00}, Bytes{0xC3, 0x01, 0x31, 0x2D, 0x00}));
}

TEST(RTMPChunkFormatterTest, ChunkSizeChangeAppliesFromNextChunk) {
  std::vector<size_t> chunkLengths;
  std::unique_ptr<RTMPChunkFormatter> formatter;
  formatter = std::make_unique<RTMPChunkFormatter>(
      std::make_shared<MediaCallback<RTMPChunk>>([&](RTMPChunk chunk) {
        chunkLengths.push_back(chunk.Data().size());
        formatter->SetChunkSize(4096);  // as a peer's announcement would, mid-message
      }),
      RTMPChannel::Video);
  formatter->PutFrame(MakePacket(RTMPChannel::Video, {0.0, 5000}));
  EXPECT_THAT(chunkLengths, ElementsAre(12 + 128, 1 + 4096, 1 + 776));

  chunkLengths.clear();
  formatter->PutFrame(MakePacket(RTMPChannel::Video, {0.04, 5000}));
  EXPECT_THAT(chunkLengths, ElementsAre(4 + 4096, 1 + 904));
}

TEST(RTMPChunkFormatterTest, ZeroChunkSizeStillFinishesMessage) {
  FormatterHarness harness(RTMPChannel::Video);
  harness.formatter.SetChunkSize(0);
  harness.formatter.PutFrame(MakePacket(RTMPChannel::Video, {0.0, 3}));
  EXPECT_EQ(harness.chunks.size(), 3u);
}

}  // namespace
}  // namespace nembra
