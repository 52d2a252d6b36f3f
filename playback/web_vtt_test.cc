#include "playback/web_vtt.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

// Times that are not plain milliseconds still give cue lines a player can read: fractions are
// cut, nonsense is clamped to 0 or to the last time a line can show.
TEST(WebVttTest, RendersOddTimesAsReadableCueLines) {
  struct Case {
    Json start, end;
    const char* line;
  };
  const Case cases[] = {
      {2.9, 1500.7, "00:00:00.002 --> 00:00:01.500"},
      {-5, 1e300, "00:00:00.000 --> 99:59:59.999"},
      {"42", "abc", "00:00:00.042 --> 00:00:00.000"},
      {Json(18446744073709551615u), nullptr, "99:59:59.999 --> 00:00:00.000"},
      {-1e300, "-7", "00:00:00.000 --> 00:00:00.000"},
  };
  for (const Case& c : cases) {
    const std::string text =
        WebVtt::render(Json::array({"word"}), Json::array({{{"start", c.start}, {"end", c.end}}}));
    EXPECT_EQ(text, std::string("WEBVTT\n\n") + c.line + "\nword\n\n") << c.line;
  }
}

}  // namespace
}  // namespace nembra
