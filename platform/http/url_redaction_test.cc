#include "platform/http/url_redaction.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

TEST(UrlRedactionTest, KeepsHostAndPathOnly) {
  struct Case {
    const char* url;
    const char* shown;
  } cases[] = {
      {"http://127.0.0.1:8080/storage?k3v=abc&client_auth=x", "http://127.0.0.1:8080/storage"},
      {"https://user:pw@cdn.example/v1/a/videos/t/video.mp4#frag",
       "https://cdn.example/v1/a/videos/t/video.mp4"},
      {"https://host?policy=p@q/x", "https://host"},
      {"https://host", "https://host"},
      {"/session?k=v", "/session"},
      {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(redactUrl(c.url), c.shown) << c.url;
}

}  // namespace
}  // namespace nembra
