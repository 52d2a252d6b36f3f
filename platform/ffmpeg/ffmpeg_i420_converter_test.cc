#include "platform/ffmpeg/ffmpeg_i420_converter.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/ffmpeg/ffmpeg_av_support.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace nembra::player {
namespace {

// A 4:2:0 picture whose every byte is |value|, with padded rows as decoders make them.
AvFrame picture(int width, int height, uint8_t value, AVRational aspect = {0, 1}) {
  AvFrame frame(av_frame_alloc());
  frame->width = width;
  frame->height = height;
  frame->format = AV_PIX_FMT_YUV420P;
  frame->sample_aspect_ratio = aspect;
  EXPECT_EQ(av_frame_get_buffer(frame.get(), 64), 0);
  for (int plane = 0; plane < 3; ++plane) {
    const int rows = plane == 0 ? height : (height + 1) / 2;
    std::fill_n(frame->data[plane], static_cast<size_t>(frame->linesize[plane]) * rows, value);
  }
  return frame;
}

bool allBytesAre(const VideoFrame& frame, uint8_t value) {
  for (const auto& plane : frame.planes) {
    if (plane.empty() ||
        std::any_of(plane.begin(), plane.end(), [&](uint8_t b) { return b != value; })) {
      return false;
    }
  }
  return true;
}

TEST(I420ConverterTest, ReleasedPicturesAreReusedWithoutLeakingIntoHeldOnes) {
  I420Converter converter;
  SharedVideoFrame first = converter.convert(*picture(64, 48, 10, {4, 3}), 1.0);
  SharedVideoFrame second = converter.convert(*picture(64, 48, 20), 2.0);
  ASSERT_TRUE(first && second);
  EXPECT_TRUE(allBytesAre(*first, 10));  // still held: never handed out again
  EXPECT_EQ(first->sampleAspectNum, 4);

  const uint8_t* firstLuma = first->planes[0].data();
  first.reset();
  EXPECT_EQ(converter.keptCount(), 1u);
  SharedVideoFrame third = converter.convert(*picture(64, 48, 30), 3.0);
  ASSERT_TRUE(third);
  EXPECT_EQ(third->planes[0].data(), firstLuma);
  EXPECT_TRUE(allBytesAre(*third, 30));
  EXPECT_EQ(third->planes[0].size(), 64u * 48);
  EXPECT_EQ(third->planes[1].size(), 32u * 24);
  EXPECT_EQ(third->strides[0], 64);
  EXPECT_EQ(third->pts, 3.0);
  // Nothing of the earlier picture stays behind.
  EXPECT_EQ(third->sampleAspectNum, 1);
  EXPECT_EQ(third->sampleAspectDen, 1);
  EXPECT_TRUE(allBytesAre(*second, 20));
}

TEST(I420ConverterTest, KeepsAFewAndPicturesMayOutliveTheConverter) {
  std::vector<SharedVideoFrame> held;
  {
    I420Converter converter;
    for (int i = 0; i < 5; ++i) held.push_back(converter.convert(*picture(32, 32, 7), i));
    held.resize(1);
    EXPECT_EQ(converter.keptCount(), I420Converter::kKept);
  }
  // Released after the converter went: simply freed.
  EXPECT_TRUE(allBytesAre(*held[0], 7));
  held.clear();
}

}  // namespace
}  // namespace nembra::player
