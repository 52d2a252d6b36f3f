#include "streaming/uri.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

namespace nembra {
namespace {

struct UriCase {
  const char* name;
  std::string text;
  std::string scheme, userInfo, host;
  int port;
  std::string path, query, fragment;
  std::vector<std::string> segments;
  std::string rebuilt;
};

class UriParseTest : public ::testing::TestWithParam<UriCase> {};

TEST_P(UriParseTest, SplitsIntoParts) {
  const UriCase& c = GetParam();
  const Uri uri = Uri::Parse(c.text);
  EXPECT_EQ(uri.scheme, c.scheme);
  EXPECT_EQ(uri.userInfo, c.userInfo);
  EXPECT_EQ(uri.host, c.host);
  EXPECT_EQ(uri.port, c.port);
  EXPECT_EQ(uri.path, c.path);
  EXPECT_EQ(uri.query, c.query);
  EXPECT_EQ(uri.fragment, c.fragment);
  EXPECT_EQ(uri.GetSegments(), c.segments);
  EXPECT_EQ(uri.ToString(), c.rebuilt);
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, UriParseTest,
    ::testing::Values(
        UriCase{"IngestAddress",
                "rtmp://live.example.com:1935/live/key-123",
                "rtmp",
                "",
                "live.example.com",
                1935,
                "/live/key-123",
                "",
                "",
                {"live", "key-123"},
                "rtmp://live.example.com:1935/live/key-123"},
        UriCase{"AllParts",
                "rtmp://user:pw@10.0.0.1/app/inst/key?token=1#frag",
                "rtmp",
                "user:pw",
                "10.0.0.1",
                0,
                "/app/inst/key",
                "?token=1",
                "#frag",
                {"app", "inst", "key"},
                "rtmp://user:pw@10.0.0.1/app/inst/key?token=1#frag"},
        UriCase{"FragmentCutBeforeQuery",
                "h/p#a?b",
                "",
                "",
                "h",
                0,
                "/p",
                "",
                "#a?b",
                {"p"},
                "h/p#a?b"},
        UriCase{"LastQuestionMarkStartsQuery",
                "h/p?a?b",
                "",
                "",
                "h",
                0,
                "/p?a",
                "?b",
                "",
                {"p?a"},
                "h/p?a?b"},
        UriCase{"UserInfoCutBeforePath",
                "rtmp://h/p@x/y",
                "rtmp",
                "h/p",
                "x",
                0,
                "/y",
                "",
                "",
                {"y"},
                "rtmp://h/p@x/y"},
        UriCase{"PortReadLikeAtoi", "h: 12x/a", "", "", "h", 12, "/a", "", "", {"a"}, "h:12/a"},
        UriCase{"PortNotNumeric", "h:abc", "", "", "h", 0, "", "", "", {}, "h"},
        UriCase{"PortOverflowSaturates",
                "h:99999999999",
                "",
                "",
                "h",
                INT_MAX,
                "",
                "",
                "",
                {},
                "h:2147483647"},
        UriCase{"BracketedHostKeepsColons",
                "[::1]:1935/a",
                "",
                "",
                "[::1]",
                1935,
                "/a",
                "",
                "",
                {"a"},
                "[::1]:1935/a"},
        UriCase{"EmptySegmentsSkipped",
                "rtmp://h//a///b/",
                "rtmp",
                "",
                "h",
                0,
                "//a///b/",
                "",
                "",
                {"a", "b"},
                "rtmp://h//a///b/"},
        UriCase{"Empty", "", "", "", "", 0, "", "", "", {}, ""},
        UriCase{"SchemeOnly", "rtmp://", "rtmp", "", "", 0, "", "", "", {}, "rtmp://"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace nembra
