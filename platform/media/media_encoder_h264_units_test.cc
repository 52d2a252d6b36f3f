// NAL unit framing: Annex B, length prefixes and the avcC record.
#include "platform/media/media_encoder_h264_units.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/media/media_source_adts.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::ElementsAre;

std::vector<Bytes> Copy(const std::vector<h264::NalUnit>& units) {
  std::vector<Bytes> out;
  for (auto unit : units) out.emplace_back(unit.begin(), unit.end());
  return out;
}

TEST(H264UnitsTest, SplitsAnnexBWithBothStartCodes) {
  const Bytes stream = {0xAA, 0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0xCE, 0, 0, 0, 1, 0x65, 0x88};
  EXPECT_THAT(Copy(h264::splitAnnexB(stream)),
              ElementsAre(Bytes{0x67, 0x42}, Bytes{0x68, 0xCE}, Bytes{0x65, 0x88}));
  EXPECT_TRUE(h264::splitAnnexB(Bytes{0x65, 0x88}).empty());  // no start code at all
}

TEST(H264UnitsTest, EveryTruncatedLengthPrefixedUnitFails) {
  Bytes stream;
  h264::appendLengthPrefixed(stream, Bytes{0x67, 0x42, 0xC0});
  h264::appendLengthPrefixed(stream, Bytes{0x65, 0x88});
  std::vector<h264::NalUnit> units;
  ASSERT_TRUE(h264::splitLengthPrefixed(stream, 4, units));
  EXPECT_THAT(Copy(units), ElementsAre(Bytes{0x67, 0x42, 0xC0}, Bytes{0x65, 0x88}));
  for (size_t size = 1; size < stream.size(); ++size) {
    if (size == 7) continue;  // ends exactly after the first unit
    units.clear();
    EXPECT_FALSE(h264::splitLengthPrefixed({stream.data(), size}, 4, units)) << size;
  }
  units.clear();
  EXPECT_FALSE(h264::splitLengthPrefixed(stream, 5, units));
}

TEST(H264UnitsTest, ReadsTwoByteLengths) {
  const Bytes stream = {0, 2, 0x65, 0x88, 0, 1, 0x41};
  std::vector<h264::NalUnit> units;
  ASSERT_TRUE(h264::splitLengthPrefixed(stream, 2, units));
  EXPECT_THAT(Copy(units), ElementsAre(Bytes{0x65, 0x88}, Bytes{0x41}));
}

TEST(H264UnitsTest, ParsesDecoderConfigurationRecordAndRefusesTruncation) {
  const Bytes record = {0x01, 0x42, 0xC0, 0x1F, 0xFD, 0xE1, 0x00, 0x03,
                        0x67, 0x42, 0xC0, 0x01, 0x00, 0x02, 0x68, 0xCE};
  h264::AvcConfig config;
  ASSERT_TRUE(h264::parseAvcDecoderConfig(record, config));
  EXPECT_EQ(config.lengthSize, 2);
  EXPECT_THAT(config.sps, ElementsAre(Bytes{0x67, 0x42, 0xC0}));
  EXPECT_THAT(config.pps, ElementsAre(Bytes{0x68, 0xCE}));
  for (size_t size = 0; size < record.size(); ++size) {
    EXPECT_FALSE(h264::parseAvcDecoderConfig({record.data(), size}, config)) << size;
  }
}

TEST(H264UnitsTest, WrittenRecordReadsBack) {
  const h264::AvcConfig config{
      {Bytes{0x67, 0x64, 0x00, 0x28, 0xAC}, Bytes{0x67, 0x42}}, {Bytes{0x68, 0xEB, 0xE3}}, 2};
  const Bytes record = h264::writeAvcDecoderConfig(config);
  const Bytes head = {0x01, 0x64, 0x00, 0x28, 0xFD, 0xE2};
  ASSERT_GE(record.size(), head.size());
  EXPECT_EQ(Bytes(record.begin(), record.begin() + 6), head);
  h264::AvcConfig read;
  ASSERT_TRUE(h264::parseAvcDecoderConfig(record, read));
  EXPECT_EQ(read.sps, config.sps);
  EXPECT_EQ(read.pps, config.pps);
  EXPECT_EQ(read.lengthSize, 2);
  // Profile bytes missing from a short first SPS are written as zeros.
  const h264::AvcConfig shortSps{{Bytes{0x67, 0x42}}, {}, 4};
  EXPECT_EQ(h264::writeAvcDecoderConfig(shortSps),
            (Bytes{0x01, 0x42, 0x00, 0x00, 0xFF, 0xE1, 0x00, 0x02, 0x67, 0x42, 0x00}));
}

TEST(H264UnitsTest, RepackMovesParameterSetsOutAndDropsDelimiters) {
  const Bytes stream = {0,    0,    1, 0x09, 0xF0, 0,    0,    1, 0x67, 0x42, 0,    0,   1,
                        0x68, 0xCE, 0, 0,    1,    0x06, 0x05, 0, 0,    1,    0x65, 0x88};
  Bytes out, sps, pps;
  h264::repackAccessUnit(h264::splitAnnexB(stream), out, sps, pps);
  EXPECT_THAT(sps, ElementsAre(0x67, 0x42));
  EXPECT_THAT(pps, ElementsAre(0x68, 0xCE));
  EXPECT_THAT(out, ElementsAre(0, 0, 0, 2, 0x06, 0x05, 0, 0, 0, 2, 0x65, 0x88));
}

struct AdtsCase {
  std::string name;
  Bytes header;
  bool valid;
  std::array<uint8_t, 2> asc;
  size_t headerLength;
};

class AdtsTest : public testing::TestWithParam<AdtsCase> {};

TEST_P(AdtsTest, ParsesHeader) {
  Bytes frame = GetParam().header;
  frame.resize(frame.size() + 3, 0x21);  // payload
  AdtsFrame parsed;
  ASSERT_EQ(parseAdtsHeader(frame, parsed), GetParam().valid);
  if (!GetParam().valid) return;
  EXPECT_EQ(parsed.asc, GetParam().asc);
  EXPECT_EQ(parsed.headerLength, GetParam().headerLength);
  EXPECT_EQ(parsed.frameLength, frame.size());
}

INSTANTIATE_TEST_SUITE_P(
    Headers, AdtsTest,
    testing::Values(
        // AAC LC, 44100 Hz (index 4), stereo, frame length 10, no CRC.
        AdtsCase{
            "Lc44100Stereo", {0xFF, 0xF1, 0x50, 0x80, 0x01, 0x5F, 0xFC}, true, {0x12, 0x10}, 7},
        // AAC LC, 48000 Hz (index 3), mono, frame length 12 with a CRC.
        AdtsCase{"Lc48000MonoCrc",
                 {0xFF, 0xF0, 0x4C, 0x40, 0x01, 0x9F, 0xFC, 0x00, 0x00},
                 true,
                 {0x11, 0x88},
                 9},
        AdtsCase{"NoSync", {0xFF, 0x01, 0x50, 0x80, 0x01, 0x5F, 0xFC}, false, {}, 0},
        // Claims 64 bytes while 10 are there.
        AdtsCase{"LongerThanData", {0xFF, 0xF1, 0x50, 0x80, 0x08, 0x1F, 0xFC}, false, {}, 0}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace nembra
