#include "platform/ffmpeg/ffmpeg_pipewire_screen_source.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/ffmpeg/testing/private_pipewire.h"

namespace nembra {
namespace {

class PipeWireScreenSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (pipewire_.node() < 0) GTEST_SKIP() << "PipeWire and WirePlumber are not installed";
  }

  std::unique_ptr<MediaSourcePipeWireScreen> open(int fps = 30) {
    OptionalError error;
    auto source = MediaSourcePipeWireScreen::open(
        pipewire_.connect(), static_cast<uint32_t>(pipewire_.node()), fps, error);
    EXPECT_TRUE(source) << (error ? error->message : "");
    return source;
  }

  testing::PrivatePipeWire pipewire_;
};

TEST_F(PipeWireScreenSourceTest, DeliversWholePicturesOfTheStreamsSizeInOrder) {
  auto source = open();
  ASSERT_TRUE(source);
  const MediaSourceInfo& info = source->info();
  EXPECT_TRUE(info.hasVideo);
  EXPECT_FALSE(info.hasAudio);
  ASSERT_GT(info.width, 0);
  ASSERT_GT(info.height, 0);
  double previous = -1;
  // More pictures than a still stream would send: the last one repeats at the frame rate.
  for (int i = 0; i < 12; ++i) {
    MediaSourceItem item;
    OptionalError error;
    ASSERT_TRUE(source->read(item, error)) << (error ? error->message : "");
    const auto* frame = std::get_if<RawMediaFrame>(&item);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->kind(), RawMediaFrame::Kind::Video);
    EXPECT_EQ(frame->width(), info.width);
    EXPECT_EQ(frame->height(), info.height);
    EXPECT_GT(frame->pts(), previous);
    previous = frame->pts();
  }
}

TEST_F(PipeWireScreenSourceTest, EndsWithAnErrorWhenPipeWireGoesAway) {
  auto source = open();
  ASSERT_TRUE(source);
  pipewire_.stop();
  MediaSourceItem item;
  OptionalError error;
  int reads = 0;
  while (source->read(item, error) && reads < 300) ++reads;
  ASSERT_LT(reads, 300);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Media) << error->message;
  EXPECT_FALSE(source->read(item, error));
}

TEST_F(PipeWireScreenSourceTest, ANodeThatIsNotThereIsAnErrorNotAnotherSource) {
  // The test pattern is the only video source, the one a session manager would fall back on.
  const auto missing = static_cast<uint32_t>(pipewire_.node() + 1000);
  OptionalError error;
  auto source = MediaSourcePipeWireScreen::open(pipewire_.connect(), missing, 30, error);
  EXPECT_FALSE(source);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Media) << error->message;
}

TEST_F(PipeWireScreenSourceTest, InterruptEndsAWaitingRead) {
  // One picture a second: the second read waits long enough to be interrupted.
  auto source = open(1);
  ASSERT_TRUE(source);
  MediaSourceItem item;
  OptionalError error;
  ASSERT_TRUE(source->read(item, error));
  std::thread interrupter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    source->interrupt();
  });
  const bool delivered = source->read(item, error);
  interrupter.join();
  EXPECT_FALSE(delivered);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Cancelled);
}

}  // namespace
}  // namespace nembra
