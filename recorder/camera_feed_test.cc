// The camera feed over the virtual camera (FFmpeg's lavfi through the media plug-in), and the
// errors a missing or unusable camera gives.
#include "recorder/camera_feed.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/media/media_backend.h"
#include "platform/media/testing/media_test_files.h"
#include "recorder/audio_level_view.h"

namespace nembra {
namespace {

class CollectingObserver final : public CaptureFrameObserver {
 public:
  void onVideoFrame(const SharedVideoFrame& frame) override {
    std::lock_guard lock(mutex);
    frames.push_back(frame);
  }
  void onCaptureError(const Error& e) override {
    std::lock_guard lock(mutex);
    error = e;
  }
  size_t count() {
    std::lock_guard lock(mutex);
    return frames.size();
  }
  std::mutex mutex;
  std::vector<SharedVideoFrame> frames;
  OptionalError error;
};

bool waitFor(const std::function<bool()>& done, int seconds = 10) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

SharedVideoFrame firstPicture(CameraPosition position) {
  CameraFeedOptions options;
  options.camera = CameraCatalog::kVirtualCamera;
  options.position = position;
  options.width = 320;
  options.height = 240;
  OptionalError error;
  auto feed = CameraFeed::open(options, error);
  EXPECT_TRUE(feed) << (error ? error->message : "");
  if (!feed) return nullptr;
  auto observer = std::make_shared<CollectingObserver>();
  feed->addObserver(observer);
  feed->start();
  EXPECT_TRUE(waitFor([&] { return observer->count() >= 3; }));
  feed->stop();
  const size_t seen = observer->count();
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_EQ(observer->count(), seen);  // nothing after stop
  EXPECT_FALSE(observer->error);       // stopping is not a failure
  return observer->frames.empty() ? nullptr : observer->frames.front();
}

TEST(CameraFeedTest, VirtualCameraDeliversDistinctBackAndFrontPictures) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  SharedVideoFrame back = firstPicture(CameraPosition::Back);
  SharedVideoFrame front = firstPicture(CameraPosition::Front);
  ASSERT_TRUE(back && front);
  EXPECT_EQ(back->width, 320);
  EXPECT_EQ(back->height, 240);
  ASSERT_EQ(back->planes[0].size(), front->planes[0].size());
  long difference = 0;
  for (size_t i = 0; i < back->planes[0].size(); ++i) {
    difference += std::abs(back->planes[0][i] - front->planes[0][i]);
  }
  // Two different test patterns, not two frames of one.
  EXPECT_GT(difference / static_cast<long>(back->planes[0].size()), 20);
}

TEST(CameraFeedTest, AGraphThatEndsIsReportedToObservers) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  CameraFeedOptions options;
  options.camera = "lavfi:testsrc2=size=64x48:rate=25:duration=0.2";
  OptionalError error;
  auto feed = CameraFeed::open(options, error);
  ASSERT_TRUE(feed) << error->message;
  auto observer = std::make_shared<CollectingObserver>();
  feed->addObserver(observer);
  feed->start();
  ASSERT_TRUE(waitFor([&] {
    std::lock_guard lock(observer->mutex);
    return observer->error.has_value();
  }));
  EXPECT_EQ(observer->count(), 5u);
  EXPECT_NE(observer->error->message.find("stopped"), std::string::npos);
}

class CameraCatalogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = std::filesystem::temp_directory_path() /
            ("nembra-dev-" + std::to_string(::getpid()) + "-" + std::to_string(rand()));
    std::filesystem::create_directories(root_);
  }
  void TearDown() override { std::filesystem::remove_all(root_); }
  std::filesystem::path root_;
};

TEST_F(CameraCatalogTest, NoCameraMissingNodesAndNonCamerasGiveClearErrors) {
  CameraCatalog catalog(root_.string());
  OptionalError error;
  EXPECT_FALSE(catalog.choose("", CameraPosition::Back, 0, 0, 0, error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->message.find("no camera found"), std::string::npos);
  EXPECT_NE(error->message.find("--camera lavfi"), std::string::npos);

  error.reset();
  const std::string missing = (root_ / "video7").string();
  EXPECT_FALSE(catalog.choose(missing, CameraPosition::Back, 0, 0, 0, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message, "no camera at " + missing);

  // A node that is no V4L2 device at all (a plain file) is not taken for a camera.
  const std::string notCamera = (root_ / "video0").string();
  std::ofstream(notCamera) << "x";
  error.reset();
  EXPECT_FALSE(catalog.choose(notCamera, CameraPosition::Back, 0, 0, 0, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message, notCamera + " is not a camera (it does not capture video)");
  error.reset();
  EXPECT_FALSE(catalog.choose("lavfi:", CameraPosition::Back, 0, 0, 0, error));
  EXPECT_TRUE(error);

  // Only the virtual camera is listed, last.
  const auto cameras = catalog.cameras();
  ASSERT_EQ(cameras.size(), 1u);
  EXPECT_EQ(cameras[0].device, "lavfi");
  EXPECT_TRUE(cameras[0].isVirtual);
}

TEST_F(CameraCatalogTest, TheVirtualCameraHasOnePatternPerPositionAtTheAskedSize) {
  CameraCatalog catalog(root_.string());
  OptionalError error;
  auto back = catalog.choose("lavfi", CameraPosition::Back, 640, 480, 15, error);
  auto front = catalog.choose("lavfi", CameraPosition::Front, 640, 480, 15, error);
  ASSERT_TRUE(back && front);
  EXPECT_TRUE(back->isVirtual);
  EXPECT_NE(back->device, front->device);
  EXPECT_NE(back->device.find("size=640x480:rate=15"), std::string::npos);
  EXPECT_NE(front->device.find("size=640x480:rate=15"), std::string::npos);
}

}  // namespace
}  // namespace nembra

namespace nembra {
namespace {

// The sound side of the feed: a microphone's blocks become signed 16-bit samples, whose level is
// the meter's formula. FFmpeg's sine source plays at an eighth of full scale and the virtual
// microphone spreads it over two channels at -3 dB, so its mean absolute sample is
// 4096 / √2 × 2/π ≈ 1844: a level of 0.184.
TEST(CameraFeedTest, MicrophoneBlocksBecomeSamplesAtTheSinesLevel) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  OptionalError error;
  auto microphone = MediaBackend::shared().openMicrophone("lavfi", error);
  ASSERT_TRUE(microphone) << error->message;
  class Levels final : public CaptureFrameObserver {
   public:
    void onVideoFrame(const SharedVideoFrame&) override {}
    void onAudioSamples(const int16_t* samples, size_t count, int channels) override {
      std::lock_guard lock(mutex);
      this->channels = channels;
      total += count;
      levels.push_back(AudioLevelView::levelOf(samples, count));
    }
    std::mutex mutex;
    std::vector<double> levels;
    size_t total = 0;
    int channels = 0;
  };
  auto levels = std::make_shared<Levels>();
  CameraFeed feed(std::move(microphone), MediaBackend::shared().makeRawFrameReader());
  feed.addObserver(levels);
  feed.start();
  ASSERT_TRUE(waitFor([&] {
    std::lock_guard lock(levels->mutex);
    return levels->total >= 8820;  // 0.1 s of stereo at 44100 Hz
  }));
  feed.stop();
  std::lock_guard lock(levels->mutex);
  EXPECT_EQ(levels->channels, 2);
  for (double level : levels->levels) {
    EXPECT_GT(level, 0.17);
    EXPECT_LT(level, 0.20);
  }
}

}  // namespace
}  // namespace nembra
