// The recorder's capture over FFmpeg's virtual devices: a camera switch shows another picture,
// and a camera whose pictures end is reported gone.
#include "recorder/media_capture_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>

#include "platform/media/testing/media_test_files.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;

// Keeps the latest preview and the runtime error, for the test thread to wait on.
class Sink final : public CaptureSampleSink {
 public:
  void captureOutput(CaptureSample& sample) override {
    if (!sample.preview) return;
    std::lock_guard lock(mutex_);
    latest_ = sample.preview;
    ++pictures_;
    changed_.notify_all();
  }
  void captureRuntimeError(const Error& error) override {
    std::lock_guard lock(mutex_);
    error_ = error;
    changed_.notify_all();
  }
  // The first preview after |after| pictures; null when none came in time.
  SharedVideoFrame pictureAfter(int after) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 5s, [&] { return pictures_ > after; });
    return pictures_ > after ? latest_ : nullptr;
  }
  int pictures() {
    std::lock_guard lock(mutex_);
    return pictures_;
  }
  std::optional<Error> waitForError() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 5s, [&] { return error_.has_value(); });
    return error_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  SharedVideoFrame latest_;
  int pictures_ = 0;
  std::optional<Error> error_;
};

CaptureSettings virtualCamera(std::string camera) {
  CaptureSettings settings;
  settings.camera = std::move(camera);
  settings.microphone = "none";
  settings.width = 160;
  settings.height = 120;
  settings.previewWidth = 160;
  return settings;
}

int lumaDifference(const VideoFrame& a, const VideoFrame& b) {
  int64_t sum = 0;
  for (size_t i = 0; i < a.planes[0].size() && i < b.planes[0].size(); ++i) {
    sum += std::abs(a.planes[0][i] - b.planes[0][i]);
  }
  return static_cast<int>(sum / std::max<size_t>(1, a.planes[0].size()));
}

class MediaCaptureSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  }
};

TEST_F(MediaCaptureSessionTest, TheVirtualCamerasTwoPositionsShowDifferentPictures) {
  MediaCaptureSession session;
  OptionalError microphone;
  ASSERT_FALSE(session.configure(virtualCamera("lavfi"), microphone));
  EXPECT_EQ(session.cameraPositions(), 2);
  Sink sink;
  session.startRunning(sink);
  SharedVideoFrame back = sink.pictureAfter(0);
  ASSERT_TRUE(back);
  ASSERT_FALSE(session.changeCamera());
  EXPECT_EQ(session.facing(), 1);
  SharedVideoFrame front = sink.pictureAfter(sink.pictures());
  session.stopRunning();
  ASSERT_TRUE(front);
  EXPECT_EQ(front->width, 160);
  EXPECT_GT(lumaDifference(*back, *front), 20) << "the switch shows the same pattern";
}

TEST_F(MediaCaptureSessionTest, ACameraWhosePicturesEndIsReportedGone) {
  MediaCaptureSession session;
  OptionalError microphone;
  ASSERT_FALSE(session.configure(virtualCamera("lavfi:testsrc2=size=160x120:rate=30:duration=0.3"),
                                 microphone));
  Sink sink;
  session.startRunning(sink);
  std::optional<Error> error = sink.waitForError();
  session.stopRunning();
  ASSERT_TRUE(error) << "the end of the pictures went unnoticed";
  EXPECT_GE(sink.pictures(), 5);
}

}  // namespace
}  // namespace nembra
