#include "api/video_covers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "api/testing/upload_service_fixture.h"
#include "platform/media/media_sample_writer.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::formFields;
using nembra::testing::links;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Covers from the service and from local files.
class CoversTest : public nembra::testing::UploadServiceTest {};

TEST_F(CoversTest, CoversAreFetchedOnceAndMustBePictures) {
  int answers = 0;
  StillImagePtr first, second;
  OptionalError badError;
  handler().getImageForVideoByToken(
      "v1", nullptr, [&](StillImagePtr image, const HttpResponse&, const OptionalError&) {
        first = image;
        ++answers;
      });
  ASSERT_TRUE(pumpUntil([&] { return answers == 1; }));
  handler().getImageForVideoByToken(
      "v1", nullptr, [&](StillImagePtr image, const HttpResponse&, const OptionalError&) {
        second = image;
        ++answers;
      });
  handler().getImageForVideoByToken(
      "bad", nullptr, [&](StillImagePtr image, const HttpResponse&, const OptionalError& e) {
        EXPECT_FALSE(image);
        badError = e;
        ++answers;
      });
  ASSERT_TRUE(pumpUntil([&] { return answers == 3; }));
  ASSERT_TRUE(first);
  EXPECT_EQ(first->format, "png");
  EXPECT_EQ(first->width, 1);
  EXPECT_EQ(second, first);
  ASSERT_TRUE(badError);
  EXPECT_EQ(badError->kind, ErrorKind::Media);
  EXPECT_EQ(count("GET /v1/applications/app1/videos/v1/image"), 1u);
  EXPECT_FALSE(handler().thumbCache().objectForKey("bad"));
}

TEST_F(CoversTest, ALocalCoverIsGrabbedOnceAtMost1920By1080) {
  std::string video = scratch_.path() + "/wide.mp4";
  ASSERT_FALSE(MediaSampleWriter::writeVideo(video, 0.5, 2560, 1440));
  StillImagePtr first, second;
  handler().getImageForVideoByPath(video, [&](StillImagePtr image, const OptionalError& error) {
    EXPECT_FALSE(error);
    first = image;
  });
  ASSERT_TRUE(pumpUntil([&] { return first != nullptr; }));
  EXPECT_EQ(first->width, 1920);
  EXPECT_EQ(first->height, 1080);
  EXPECT_EQ(first->format, "jpeg");
  // Found in the cache: answered at once, the same picture.
  handler().getImageForVideoByPath(
      video, [&](StillImagePtr image, const OptionalError&) { second = image; });
  EXPECT_EQ(second, first);
}

}  // namespace
}  // namespace nembra
