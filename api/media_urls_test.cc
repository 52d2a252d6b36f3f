#include "api/media_urls.h"

#include <gtest/gtest.h>

#include "nembra/media_type.h"
#include "nembra/nembra_config.h"

namespace nembra {
namespace {

struct UrlCase {
  const char* name;
  int type;
  const char* api;
  const char* media;
  const char* upload;
  const char* confirm;
};

class MediaUrlsTest : public ::testing::TestWithParam<UrlCase> {
 protected:
  static MediaUrls urls() {
    NembraConfig config;
    config.server_api_url = "https://api";
    config.dev_server_api_url = "https://dev";
    config.cdn_api_url = "https://cdn";
    config.file_server_url = "https://files";
    return MediaUrls(config, "app");
  }
};

// Videos live on the main API and the embed CDN, audios and images on the second API and the
// file server; any other type has no URL at all.
TEST_P(MediaUrlsTest, BuildsEachTypesUrls) {
  const UrlCase& c = GetParam();
  MediaUrls built = urls();
  EXPECT_EQ(built.apiUrl(c.type, "/t"), c.api);
  EXPECT_EQ(built.mediaUrl(c.type, "t"), c.media);
  EXPECT_EQ(built.uploadUrl(c.type), c.upload);
  EXPECT_EQ(built.confirmUrl(c.type, "t", "s"), c.confirm);
}

INSTANTIATE_TEST_SUITE_P(
    Types, MediaUrlsTest,
    ::testing::Values(
        UrlCase{"Video", VIDEO, "https://api/v1/applications/app/videos/t",
                "https://cdn/v1/applications/app/videos/t/video.mp4",
                "https://api/v1/applications/app/videos/videos-upload-url?create_stream=true",
                "https://api/v1/applications/app/videos/t/streams/s/confirm-video"},
        UrlCase{"Audio", AUDIO, "https://dev/v1/applications/app/audios/t",
                "https://files/v1/applications/app/audios/t/audio.aac",
                "https://dev/v1/applications/app/audios",
                "https://dev/v1/applications/app/audios/t/confirm"},
        UrlCase{"Image", IMAGE, "https://dev/v1/applications/app/images/t",
                "https://files/v1/applications/app/images/t/image.jpg",
                "https://dev/v1/applications/app/images",
                "https://dev/v1/applications/app/images/t/confirm"},
        UrlCase{"Unknown", 3, "", "", "", ""}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace nembra
