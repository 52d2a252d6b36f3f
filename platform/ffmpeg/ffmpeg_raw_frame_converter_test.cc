// The camera's preview pictures: each preview pixel stands for the camera pixels it covers, for
// sizes the preview divides exactly and for the others.
#include "platform/ffmpeg/ffmpeg_raw_frame_converter.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/ffmpeg/ffmpeg_av_support.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace nembra {
namespace {

// A 4:2:0 picture whose luma is a one-pixel checkerboard of 0 and 250 on the left half and a
// flat 100 on the right; chroma flat.
RawMediaFrame checkerboard(int width, int height) {
  AvFrame frame = allocateAvPicture(AV_PIX_FMT_YUV420P, width, height);
  for (int y = 0; y < height; ++y) {
    uint8_t* row = frame->data[0] + static_cast<ptrdiff_t>(y) * frame->linesize[0];
    for (int x = 0; x < width; ++x) row[x] = x < width / 2 ? ((x + y) % 2 ? 250 : 0) : 100;
  }
  for (int plane = 1; plane < 3; ++plane) {
    for (int y = 0; y < height / 2; ++y) {
      uint8_t* row = frame->data[plane] + static_cast<ptrdiff_t>(y) * frame->linesize[plane];
      for (int x = 0; x < width / 2; ++x) row[x] = plane == 1 ? 90 : 160;
    }
  }
  return wrapAvFrame(RawMediaFrame::Kind::Video, frame.release(), 1.5);
}

TEST(RawFrameConverterTest, PreviewPixelsAverageTheCameraPixelsTheyCover) {
  struct Case {
    int width, height, previewWidth, wantWidth, wantHeight;
    bool wholeMultiple;  // a scaler that interpolates is not held to the checkerboard's mean
  };
  for (const Case& c : {Case{1280, 720, 640, 640, 360, true}, Case{1920, 1080, 640, 640, 360, true},
                        Case{1000, 600, 640, 640, 384, false}}) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
    FfmpegRawFrameConverter converter;
    SharedVideoFrame preview = converter.picture(checkerboard(c.width, c.height), c.previewWidth);
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->width, c.wantWidth);
    EXPECT_EQ(preview->height, c.wantHeight);
    EXPECT_EQ(preview->pts, 1.5);
    // Away from the seam between the halves: the checkerboard reads as its mean, not as one of
    // its squares, and the flat half keeps its level.
    for (int y = 4; y < preview->height - 4; y += 7) {
      const uint8_t* row = preview->planes[0].data() + static_cast<size_t>(y) * preview->strides[0];
      for (int x = 4; c.wholeMultiple && x < preview->width / 2 - 4; x += 5) {
        ASSERT_LT(std::abs(row[x] - 125), 20) << x << "," << y;
      }
      for (int x = preview->width / 2 + 4; x < preview->width - 4; x += 5) {
        ASSERT_LT(std::abs(row[x] - 100), 3) << x << "," << y;
      }
    }
    EXPECT_NEAR(preview->planes[1][preview->strides[1] * 10 + 10], 90, 2);
    EXPECT_NEAR(preview->planes[2][preview->strides[2] * 10 + 10], 160, 2);
  }
}

}  // namespace
}  // namespace nembra
