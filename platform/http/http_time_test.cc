#include "platform/http/http_time.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

constexpr int64_t kNow = 1714564800;  // 2024-05-01T12:00:00Z, a Wednesday

TEST(HttpTimeTest, FormatsEveryForm) {
  EXPECT_EQ(formatIso8601(kNow), "2024-05-01T12:00:00.000Z");
  EXPECT_EQ(formatAmzDate(kNow), "20240501T120000Z");
  EXPECT_EQ(formatHttpDate(kNow), "Wed, 01 May 2024 12:00:00 GMT");
  EXPECT_EQ(formatHttpDate(kNow, HttpDateStyle::kNumericZone), "Wed, 1 May 2024 12:00:00 +0000");
}

TEST(HttpTimeTest, ParsesIsoAndAmzDates) {
  EXPECT_EQ(parseIso8601("2024-05-01T12:00:00Z"), kNow);
  EXPECT_EQ(parseIso8601("2024-05-01T12:00:00.123456Z"), kNow);
  EXPECT_EQ(parseAmzDate("20240501T120000Z"), kNow);
  for (const char* bad :
       {"2024-05-01 12:00:00Z", "2024-05-01T12:00:00", "2024-13-01T00:00:00Z",
        "2024-05-01T12:00:00.Z", "2024-02-30T00:00:00Z", "2024-05-01T12:00:00+01"}) {
    EXPECT_FALSE(parseIso8601(bad).has_value()) << bad;
  }
  EXPECT_FALSE(parseAmzDate("20240501T120000").has_value());
}

struct HttpDateCase {
  const char* text;
  std::optional<int64_t> unixSeconds;
};

class HttpDateParseTest : public ::testing::TestWithParam<HttpDateCase> {};

TEST_P(HttpDateParseTest, ReadsBothStylesAndOffsets) {
  EXPECT_EQ(parseHttpDate(GetParam().text), GetParam().unixSeconds) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Dates, HttpDateParseTest,
    ::testing::Values(HttpDateCase{"Wed, 01 May 2024 12:00:00 GMT", kNow},
                      HttpDateCase{"Wed, 1 May 2024 12:00:00 +0000", kNow},
                      HttpDateCase{"Wednesday, 1 may 2024 13:30:00 +01:30", kNow},
                      HttpDateCase{"Wed, 1 May 2024 04:00:00 -0800", kNow},
                      HttpDateCase{"Wed, 01 Foo 2024 12:00:00 GMT", std::nullopt},
                      HttpDateCase{"Wed, 31 Apr 2024 12:00:00 GMT", std::nullopt},
                      HttpDateCase{"Wed, 01 May 2024 12:00:00", std::nullopt},
                      HttpDateCase{"Wed, 01 May 2024 12:00:00 GMT x", std::nullopt}));

}  // namespace
}  // namespace nembra
