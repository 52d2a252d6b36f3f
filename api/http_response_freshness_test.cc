#include "api/http_response_freshness.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

using std::chrono::seconds;

// A fixed "now": Sun, 6 Nov 1994 08:49:37 GMT.
const auto kNow = std::chrono::system_clock::time_point(seconds(784111777));

struct MaxAgeCase {
  const char* name;
  HttpHeaders headers;
  std::optional<int64_t> expected;
};

class MaxAgeTest : public ::testing::TestWithParam<MaxAgeCase> {};

TEST_P(MaxAgeTest, ReadsTheDirectivesInOrder) {
  HttpResponse response;
  response.headers = GetParam().headers;
  EXPECT_EQ(HttpResponseFreshness::findMaxAge(response, kNow), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rule, MaxAgeTest,
    ::testing::Values(
        MaxAgeCase{"PublicMaxAge", {{"Cache-Control", "public, max-age=300"}}, 300},
        MaxAgeCase{"NoCacheFirstStops", {{"Cache-Control", "no-cache, max-age=300"}}, std::nullopt},
        MaxAgeCase{"MaxAgeBeforeNoCacheCounts", {{"Cache-Control", "max-age=300, no-cache"}}, 300},
        MaxAgeCase{"LaterMaxAgeWins", {{"cache-control", "max-age=5, MAX-AGE=9"}}, 9},
        MaxAgeCase{"TrimmedAndLowerCased", {{"Cache-Control", "  Max-Age=42  "}}, 42},
        MaxAgeCase{"SMaxAgeIsNotMaxAge", {{"Cache-Control", "s-maxage=50"}}, std::nullopt},
        MaxAgeCase{"TwoSeparatorsSkipped", {{"Cache-Control", "max-age=1max-age=2"}}, std::nullopt},
        MaxAgeCase{"NoStoreAloneLetsExpiresDecide",
                   {{"Cache-Control", "no-store"}, {"Expires", "Sun, 06 Nov 1994 08:50:37 GMT"}},
                   60},
        MaxAgeCase{"ExpiresInThePastIsZero", {{"Expires", "Sat, 5 Nov 1994 08:49:37 GMT"}}, 0},
        MaxAgeCase{"ExpiresWithOffset", {{"Expires", "Sun, 6 Nov 1994 09:49:37 +0100"}}, 0},
        MaxAgeCase{"MaxAgeBeatsExpires",
                   {{"Cache-Control", "max-age=7"}, {"Expires", "Mon, 7 Nov 1994 08:49:37 GMT"}},
                   7},
        MaxAgeCase{"RepeatedHeadersMerge",
                   {{"Cache-Control", "public"}, {"Cache-Control", "max-age=11"}},
                   11},
        MaxAgeCase{"UnreadableExpires", {{"Expires", "0"}}, std::nullopt},
        MaxAgeCase{"Nothing", {}, std::nullopt}),
    [](const auto& info) { return info.param.name; });

struct DateCase {
  const char* text;
  std::optional<int64_t> unixSeconds;
};

class HttpDateTest : public ::testing::TestWithParam<DateCase> {};

TEST_P(HttpDateTest, ParsesThePattern) {
  auto date =
      HttpResponseFreshness::RFC7231PreferredDateFormatter().dateFromString(GetParam().text);
  ASSERT_EQ(date.has_value(), GetParam().unixSeconds.has_value()) << GetParam().text;
  if (date) {
    EXPECT_EQ(std::chrono::duration_cast<seconds>(date->time_since_epoch()).count(),
              *GetParam().unixSeconds);
  }
}

INSTANTIATE_TEST_SUITE_P(Dates, HttpDateTest,
                         ::testing::Values(DateCase{"Sun, 06 Nov 1994 08:49:37 GMT", 784111777},
                                           DateCase{"Sunday, 6 Nov 1994 08:49:37 UTC", 784111777},
                                           DateCase{"Sun, 6 nov 1994 00:49:37 -0800", 784111777},
                                           DateCase{"Thu, 29 Feb 2024 00:00:00 +00:00", 1709164800},
                                           DateCase{"Fri, 30 Feb 2024 00:00:00 GMT", std::nullopt},
                                           DateCase{"Sun, 06 Nov 1994 24:00:00 GMT", std::nullopt},
                                           DateCase{"Sunday, 06-Nov-94 08:49:37 GMT", std::nullopt},
                                           DateCase{"Sun Nov  6 08:49:37 1994", std::nullopt},
                                           DateCase{"Sun, 06 Nov 1994 08:49:37 GMT trailing",
                                                    std::nullopt}));

TEST(HttpDateFormatterTest, WritesWhatItReads) {
  const HttpDateFormatter& formatter = HttpResponseFreshness::RFC7231PreferredDateFormatter();
  EXPECT_EQ(formatter.stringFromDate(kNow), "Sun, 6 Nov 1994 08:49:37 +0000");
  EXPECT_EQ(formatter.dateFromString(formatter.stringFromDate(kNow)), kNow);
}

}  // namespace
}  // namespace nembra
