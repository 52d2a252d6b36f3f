#include "service/byte_range.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

struct RangeCase {
  const char* header;
  uint64_t size;
  ByteRange::Kind kind;
  uint64_t first = 0;
  uint64_t last = 0;
};

class ByteRangeTest : public ::testing::TestWithParam<RangeCase> {};

TEST_P(ByteRangeTest, AnswersLikeTheFileServerMust) {
  const RangeCase& c = GetParam();
  ByteRange range = ByteRange::parse(c.header, c.size);
  ASSERT_EQ(range.kind, c.kind) << c.header;
  if (c.kind == ByteRange::Kind::Partial) {
    EXPECT_EQ(range.first, c.first) << c.header;
    EXPECT_EQ(range.last, c.last) << c.header;
  }
}

using K = ByteRange::Kind;

INSTANTIATE_TEST_SUITE_P(
    Headers, ByteRangeTest,
    ::testing::Values(RangeCase{"bytes=0-0", 100, K::Partial, 0, 0},
                      RangeCase{"bytes=10-19", 100, K::Partial, 10, 19},
                      RangeCase{"bytes=90-", 100, K::Partial, 90, 99},
                      RangeCase{"bytes=90-5000", 100, K::Partial, 90, 99},  // end cut to the file
                      RangeCase{"bytes=-10", 100, K::Partial, 90, 99},
                      RangeCase{"bytes=-1000", 100, K::Partial, 0, 99},
                      RangeCase{"Bytes = 5 - 6", 100, K::Partial, 5, 6},
                      RangeCase{"bytes=100-", 100, K::Unsatisfiable},  // starts past the end
                      RangeCase{"bytes=100-200", 100, K::Unsatisfiable},
                      RangeCase{"bytes=20-10", 100, K::Unsatisfiable},
                      RangeCase{"bytes=-0", 100, K::Unsatisfiable},
                      RangeCase{"bytes=0-", 0, K::Unsatisfiable},
                      RangeCase{"bytes=-5", 0, K::Unsatisfiable},
                      RangeCase{"bytes=a-b", 100, K::Unsatisfiable},
                      RangeCase{"bytes=-", 100, K::Unsatisfiable},
                      RangeCase{"bytes=18446744073709551616-", 100, K::Unsatisfiable},
                      RangeCase{"bytes 0-1", 100, K::Unsatisfiable},
                      RangeCase{"bytes=0-1,5-6", 100, K::Whole},  // several: sent whole
                      RangeCase{"items=0-1", 100, K::Whole},      // another unit: ignored
                      RangeCase{"", 100, K::Whole}));

}  // namespace
}  // namespace nembra
