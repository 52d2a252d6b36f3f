#include "service/form_params.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

TEST(FormParamsTest, ReadsTheSdkQueryWithItsTrailingAmpersand) {
  auto params = FormParams::parse("k3v9qd72mx0wzr5hub81tneaapp=abc&title=a%20b%2Bc+d&empty=&flag&");
  ASSERT_TRUE(params.ok());
  EXPECT_EQ(params->pairs().size(), 4u);
  EXPECT_EQ(params->get("k3v9qd72mx0wzr5hub81tneaapp"), "abc");
  // '+' is a plus: the SDK sends spaces as %20 and leaves '+' unencoded.
  EXPECT_EQ(params->get("title"), "a b+c+d");
  EXPECT_EQ(params->get("empty"), "");
  EXPECT_EQ(params->get("flag"), "");
  EXPECT_FALSE(params->get("missing").has_value());
}

TEST(FormParamsTest, KeepsOrderAndRepeatsAndSplitsAtTheFirstEquals) {
  auto params = FormParams::parse("a=1&b=x=y&a=2");
  ASSERT_TRUE(params.ok());
  ASSERT_EQ(params->pairs().size(), 3u);
  EXPECT_EQ(params->get("a"), "1");
  EXPECT_EQ(params->pairs()[1].second, "x=y");
  EXPECT_EQ(params->pairs()[2].second, "2");
}

class FormParamsRefusalTest : public ::testing::TestWithParam<const char*> {};

TEST_P(FormParamsRefusalTest, RefusesMalformedEscapesAndNul) {
  auto params = FormParams::parse(GetParam());
  ASSERT_FALSE(params.ok());
  EXPECT_EQ(params.error().kind, ErrorKind::InvalidArgument);
}

INSTANTIATE_TEST_SUITE_P(Texts, FormParamsRefusalTest,
                         ::testing::Values("a=%", "a=%4", "a=%zz", "%g0=1", "a=%00", "a%00b=1"));

TEST(FormParamsTest, PercentDecodeLeavesPlusAndReadsBothCases) {
  EXPECT_EQ(percentDecode("%2e%2E%2f+"), "../+");
  EXPECT_FALSE(percentDecode("%2").has_value());
}

}  // namespace
}  // namespace nembra
