#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <stdexcept>
#include <vector>

#include "streaming/bitstream_reader.h"
#include "streaming/bitstream_writer.h"

namespace nembra {
namespace {

using ::testing::ElementsAre;

TEST(BitstreamReaderTest, Reads64BitsOfBigEndianDoubleExactly) {
  const std::vector<uint8_t> pi = {0x40, 0x09, 0x21, 0xFB, 0x54, 0x44, 0x2D, 0x18};
  BitstreamReader reader(pi);
  EXPECT_EQ(std::bit_cast<double>(reader.GetBits(64)), 3.141592653589793);
  EXPECT_EQ(reader.RemainingDataSize(), 0u);
}

struct BitFieldCase {
  std::vector<uint8_t> bytes;
  std::vector<unsigned> widths;
  std::vector<uint64_t> values;
};

class BitFieldReadTest : public ::testing::TestWithParam<BitFieldCase> {};

TEST_P(BitFieldReadTest, ReadsFieldsAcrossByteBoundaries) {
  BitstreamReader reader(GetParam().bytes);
  std::vector<uint64_t> values;
  for (unsigned width : GetParam().widths) {
    values.push_back(reader.GetBits(width));
  }
  EXPECT_EQ(values, GetParam().values);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, BitFieldReadTest,
    ::testing::Values(BitFieldCase{{0xA5}, {3, 5}, {0b101, 0b00101}},
                      BitFieldCase{{0xC3}, {2, 6}, {3, 3}},  // a chunk basic header
                      BitFieldCase{{0x12, 0x34, 0x56}, {4, 16, 4}, {0x1, 0x2345, 0x6}},
                      BitFieldCase{{0x00, 0x01, 0x2C, 0x14}, {24, 8}, {300, 20}},
                      BitFieldCase{{0xFF, 0x00}, {1, 15}, {1, 0x7F00}},
                      BitFieldCase{{0xAB}, {0, 8, 0}, {0, 0xAB, 0}}));

TEST(BitstreamReaderTest, ByteReadWhileHalfwayThroughByteThrows) {
  const std::vector<uint8_t> bytes = {0xFF, 0x01};
  BitstreamReader reader(bytes);
  reader.GetBits(3);
  EXPECT_THROW(
      {
        try {
          reader.GetByte();
        } catch (const std::runtime_error& error) {
          EXPECT_STREQ(error.what(), "bitstream reader is not aligned");
          throw;
        }
      },
      std::runtime_error);
  uint8_t bulk[1];
  EXPECT_THROW(reader.GetBytes(bulk, 1), std::runtime_error);
}

TEST(BitstreamReaderTest, PastTheEndReadsZerosAndStaysAtEnd) {
  const std::vector<uint8_t> bytes = {0x7F};
  BitstreamReader reader(bytes);
  EXPECT_EQ(reader.GetByte(), 0x7F);
  EXPECT_EQ(reader.GetByte(), 0);
  EXPECT_EQ(reader.GetBits(16), 0u);
  EXPECT_EQ(reader.Position(), bytes.size());
  uint8_t bulk[3] = {9, 9, 9};
  reader.GetBytes(bulk, 3);
  EXPECT_THAT(bulk, ElementsAre(0, 0, 0));
}

TEST(BitstreamWriterTest, ByteWriteWhileHalfwayThroughByteThrows) {
  std::vector<uint8_t> bytes;
  BitstreamWriter writer(bytes);
  writer.PutBits(1, 1);
  try {
    writer.PutByte(0);
    FAIL() << "expected an alignment error";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "bitstream writer is not aligned");
  }
  writer.PutBits(0, 7);
  EXPECT_THAT(bytes, ElementsAre(0x80));
}

TEST(BitstreamWriterTest, StartsAtZeroAndOverwritesBeforeAppending) {
  std::vector<uint8_t> bytes = {1, 2, 3};
  BitstreamWriter writer(bytes);
  writer.PutByte(9);
  EXPECT_THAT(bytes, ElementsAre(9, 2, 3));
  writer.SetPosition(2);
  const uint8_t more[] = {7, 7, 7};
  writer.PutBytes(more, more + 3);
  EXPECT_THAT(bytes, ElementsAre(9, 2, 7, 7, 7));
  writer.SetPosition(50);
  EXPECT_EQ(writer.Position(), 5u);
  writer.SetPosition(0);
  writer.PutByte(0);
  EXPECT_EQ(bytes.size(), 5u);
  writer.SeekToEnd();
  writer.PutByte(8);
  EXPECT_THAT(bytes, ElementsAre(0, 2, 7, 7, 7, 8));
}

}  // namespace
}  // namespace nembra
