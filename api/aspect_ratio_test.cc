#include "nembra/aspect_ratio.h"

#include <gtest/gtest.h>

#include <climits>

namespace nembra {
namespace {

struct ParseCase {
  const char* text;
  std::optional<std::pair<int, int>> ratio;
  const char* error;  // the whole message, or its start when it names the bad part
};

class AspectRatioParseTest : public testing::TestWithParam<ParseCase> {};

TEST_P(AspectRatioParseTest, ParsesTwoIntegersAndReduces) {
  OptionalError error;
  std::optional<AspectRatio> ratio = AspectRatio::parse(GetParam().text, &error);
  if (GetParam().ratio) {
    ASSERT_TRUE(ratio) << error->message;
    EXPECT_EQ(ratio->getX(), GetParam().ratio->first);
    EXPECT_EQ(ratio->getY(), GetParam().ratio->second);
  } else {
    EXPECT_FALSE(ratio);
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->message.starts_with(GetParam().error)) << error->message;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, AspectRatioParseTest,
    testing::Values(ParseCase{"16:9", std::pair{16, 9}, ""},
                    ParseCase{"16 : 9", std::pair{16, 9}, ""},
                    ParseCase{"32:18", std::pair{16, 9}, ""}, ParseCase{"0:0", std::pair{0, 0}, ""},
                    ParseCase{"-4:3", std::pair{4, -3}, ""},  // the sign follows the divisor
                    ParseCase{"4:3:1", std::nullopt, "Malformed aspect ratio: 4:3:1"},
                    ParseCase{"16", std::nullopt, "Malformed aspect ratio: 16"},
                    ParseCase{"", std::nullopt, "Malformed aspect ratio: "},
                    ParseCase{"16:x", std::nullopt, "Malformed aspect ratio: 16:x \"x\""},
                    ParseCase{"16:", std::nullopt, "Malformed aspect ratio: 16: \"\""},
                    ParseCase{"1 6:9", std::nullopt, "Malformed aspect ratio: 1 6:9 \"1 6\""},
                    ParseCase{"99999999999:1", std::nullopt,
                              "Malformed aspect ratio: 99999999999:1 "}));

TEST(AspectRatioParseTest, MessageWithoutTwoPartsIsExactlyTheInput) {
  OptionalError error;
  AspectRatio::parse("4:3:1", &error);
  EXPECT_EQ(error->message, "Malformed aspect ratio: 4:3:1");
}

TEST(AspectRatioTest, GcdAndOfHandleSignsZeroAndExtremes) {
  EXPECT_EQ(AspectRatio::gcd(1920, 1080), 120);
  EXPECT_EQ(AspectRatio::gcd(0, 0), 0);
  EXPECT_EQ(AspectRatio::gcd(INT_MIN, -1), -1);
  EXPECT_EQ(AspectRatio::of(0, 0).toString(), "0 : 0");
  EXPECT_EQ(AspectRatio::of(0, 0).toFloat(), 0.0f);
  EXPECT_EQ(AspectRatio::of(0, 5).toString(), "0 : 1");
  EXPECT_EQ(AspectRatio::of(-3, 2).toString(), "3 : -2");
  EXPECT_EQ(AspectRatio::of(INT_MIN, -1).toString(), "-2147483648 : 1");
}

TEST(AspectRatioTest, ComparisonsAndInverse) {
  AspectRatio wide = AspectRatio::of(16, 9);
  AspectRatio classic = AspectRatio::of(4, 3);
  EXPECT_EQ(wide.toString(), "16 : 9");
  EXPECT_FLOAT_EQ(wide.toFloat(), 16.0f / 9.0f);
  EXPECT_EQ(AspectRatio(4, -3).toFloat(), 0.0f);
  EXPECT_EQ(wide.compareTo(classic), 1);
  EXPECT_EQ(classic.compareTo(wide), -1);
  EXPECT_EQ(wide.compareTo(AspectRatio::of(32, 18)), 0);
  // Not reduced on construction, so not equal to its reduced form.
  EXPECT_FALSE(AspectRatio(32, 18).equals(wide));
  EXPECT_EQ(AspectRatio(32, 18).compareTo(wide), -1);
  EXPECT_FALSE(wide.equals(std::nullopt));
  EXPECT_TRUE(wide.matches(1920, 1080));
  EXPECT_FALSE(wide.matches(1920, 1440));
  EXPECT_EQ(wide.inverse().toString(), "9 : 16");
  EXPECT_EQ(AspectRatio(32, 18).inverse().toString(), "9 : 16");
}

}  // namespace
}  // namespace nembra
