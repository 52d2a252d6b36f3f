// The microphone source: the virtual tone as a device would deliver it, and missing devices.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>

#include "platform/ffmpeg/ffmpeg_device_source.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace nembra {
namespace {

TEST(MediaSourceMicrophoneTest, VirtualToneDeliversOneSecondOfStereoPcmInRealTime) {
  OptionalError error;
  auto source = MediaSourceDevice::openMicrophone("lavfi", error);
  ASSERT_TRUE(source) << error->message;
  EXPECT_TRUE(source->info().hasAudio);
  EXPECT_FALSE(source->info().hasVideo);
  EXPECT_EQ(source->info().sampleRate, 44100);
  EXPECT_EQ(source->info().channels, 2);

  int samples = 0;
  int peak = 0;
  double lastPts = 0;
  MediaSourceItem item;
  while (samples < 44100 && source->read(item, error)) {
    auto* raw = std::get_if<RawMediaFrame>(&item);
    ASSERT_NE(raw, nullptr);
    ASSERT_EQ(raw->kind(), RawMediaFrame::Kind::Audio);
    EXPECT_EQ(raw->sampleRate(), 44100);
    EXPECT_GE(raw->pts(), lastPts);
    lastPts = raw->pts();
    const auto* pcm = reinterpret_cast<const int16_t*>(raw->avFrame()->data[0]);
    for (int i = 0; i < raw->sampleCount() * 2; ++i) peak = std::max(peak, std::abs(int{pcm[i]}));
    samples += raw->sampleCount();
  }
  ASSERT_FALSE(error) << error->message;
  EXPECT_GE(samples, 44100);
  EXPECT_GT(peak, 1000);  // a tone, not silence
  // Paced like a sound card: the second's last block cannot arrive before most of a second.
  EXPECT_GT(lastPts, 0.9);

  source->interrupt();
  EXPECT_FALSE(source->read(item, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Cancelled);
}

TEST(MediaSourceMicrophoneTest, MissingOrUnknownMicrophoneIsAClearError) {
  struct Case {
    const char* device;
    ErrorKind kind;
    const char* mentions;
  };
  for (const Case& c :
       {Case{"alsa:nembra-no-such-card", ErrorKind::Media, "alsa:nembra-no-such-card"},
        Case{"pulse:nembra-no-such-source", ErrorKind::Media, "pulse:nembra-no-such-source"},
        Case{"hw0", ErrorKind::InvalidArgument, "unknown microphone \"hw0\""}}) {
    SCOPED_TRACE(c.device);
    OptionalError error;
    EXPECT_FALSE(MediaSourceDevice::openMicrophone(c.device, error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind, c.kind);
    EXPECT_THAT(error->message, testing::HasSubstr(c.mentions));
  }
}

}  // namespace
}  // namespace nembra
