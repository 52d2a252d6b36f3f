// The AudioSpecificConfig the AAC encoder hands on.
#include "streaming/aac_encoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace nembra {
namespace {

struct AscCase {
  int sampleRate;
  int channels;
  int index;
  std::array<uint8_t, 2> asc;
};

class MakeAscTest : public testing::TestWithParam<AscCase> {};

TEST_P(MakeAscTest, BuildsConfigFromRateIndexAndChannels) {
  const AscCase& c = GetParam();
  EXPECT_EQ(AACEncoder::getSampleRateIndex(c.sampleRate), c.index);
  EXPECT_EQ(AACEncoder::makeAsc(c.index, c.channels), c.asc);
}

INSTANTIATE_TEST_SUITE_P(
    Rates, MakeAscTest,
    testing::Values(AscCase{22050, 2, 7, {0x13, 0x90}}, AscCase{44100, 2, 4, {0x12, 0x10}},
                    AscCase{48000, 1, 3, {0x11, 0x88}}, AscCase{96000, 6, 0, {0x10, 0x30}},
                    // Index 11 keeps only (11 >> 1) & 3: 0x11 where 0x15 would be right.
                    AscCase{8000, 2, 11, {0x11, 0x90}}, AscCase{7350, 1, 12, {0x12, 0x08}},
                    AscCase{12345, 2, 15, {0x13, 0x90}}));

}  // namespace
}  // namespace nembra
