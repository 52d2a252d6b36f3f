#include "nembra/video_size.h"

#include <gtest/gtest.h>

#include "platform/system/device_facts.h"

namespace nembra {
namespace {

struct SizeCase {
  int32_t width;
  int32_t height;
  std::optional<AspectRatio> given;
  std::optional<std::string> ratio;  // toString of the result's ratio; absent when none
  const char* error;                 // nullptr when the size is valid
};

class VideoSizeRulesTest : public testing::TestWithParam<SizeCase> {};

TEST_P(VideoSizeRulesTest, ChecksSidesAgainstTheRatio) {
  const SizeCase& c = GetParam();
  OptionalError error;
  std::optional<VideoSize> size = c.given
                                      ? VideoSize::initWithWidth(c.width, c.height, c.given, &error)
                                      : VideoSize::initWithWidth(c.width, c.height, &error);
  if (c.error) {
    EXPECT_FALSE(size);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message, c.error);
    EXPECT_EQ(error->kind, ErrorKind::InvalidArgument);
    return;
  }
  ASSERT_TRUE(size) << error->message;
  EXPECT_EQ(size->width, c.width);
  EXPECT_EQ(size->height, c.height);
  EXPECT_EQ(size->aspectRatio ? std::optional(size->aspectRatio->toString()) : std::nullopt,
            c.ratio);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, VideoSizeRulesTest,
    testing::Values(SizeCase{0, 0, std::nullopt, std::nullopt,
                             "The width and height can't be zero without aspect ratio."},
                    SizeCase{1920, 1080, AspectRatio::of(4, 3), std::nullopt,
                             "The aspect ratio doesn't fit width and height."},
                    SizeCase{1920, 1080, AspectRatio(32, 18), std::nullopt,
                             "The aspect ratio doesn't fit width and height."},
                    SizeCase{1920, 1080, std::nullopt, "16 : 9", nullptr},
                    SizeCase{1920, 1080, AspectRatio::of(16, 9), "16 : 9", nullptr},
                    SizeCase{0, 0, AspectRatio::of(4, 3), "4 : 3", nullptr},
                    SizeCase{1280, 0, std::nullopt, std::nullopt, nullptr},
                    SizeCase{1280, 0, AspectRatio::of(4, 3), "4 : 3", nullptr}));

TEST(VideoSizeTest, EqualityBySidesAndOrderByArea) {
  VideoSize hd = *VideoSize::initWithWidth(1280, 720);
  VideoSize tall = *VideoSize::initWithWidth(720, 1280);
  VideoSize full = *VideoSize::initWithWidth(1920, 1080);
  EXPECT_FALSE(hd.equals(tall));
  EXPECT_TRUE(hd.equals(*VideoSize::initWithWidth(1280, 720)));
  EXPECT_EQ(hd.compareTo(tall), 0);
  EXPECT_EQ(full.compareTo(hd), 1920 * 1080 - 1280 * 720);
  EXPECT_LT(hd.compareTo(full), 0);
  VideoSize huge = *VideoSize::initWithWidth(INT32_MAX, INT32_MAX);
  EXPECT_GT(huge.compareTo(hd), 0);
}

TEST(VideoSizeTest, ScreenRatioPutsTheLongerSideFirst) {
  EXPECT_EQ(VideoSize::screenAspectRatio(DisplaySize{1080, 1920}).toString(), "16 : 9");
  EXPECT_EQ(VideoSize::screenAspectRatio(DisplaySize{1280, 1024}).toString(), "5 : 4");
  EXPECT_EQ(VideoSize::screenAspectRatio(std::nullopt).toString(), "16 : 9");
  VideoSize initial;
  EXPECT_EQ(initial.width, 0);
  EXPECT_EQ(initial.height, 0);
  ASSERT_TRUE(initial.aspectRatio);
  EXPECT_EQ(initial.aspectRatio->toString(),
            VideoSize::screenAspectRatio(DeviceFacts().mainDisplaySize()).toString());
}

}  // namespace
}  // namespace nembra
