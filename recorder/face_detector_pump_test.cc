#include "recorder/face_detector_pump.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/vision/testing/gray_pictures.h"
#include "recorder/testing/test_frames.h"

namespace nembra {
namespace {

// Reports the boxes it is told to, counting searches; |gate| holds a search until opened.
class ScriptedDetector final : public FaceDetector {
 public:
  std::vector<FaceBox> detect(const GrayImageView& image) override {
    while (held.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    lastWidth = image.width;
    ++calls;
    std::lock_guard lock(mutex);
    return boxes;
  }
  std::atomic<bool> held{false};
  std::atomic<int> calls{0};
  std::atomic<int> lastWidth{0};
  std::mutex mutex;
  std::vector<FaceBox> boxes;
};

void waitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 2000 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(FaceDetectorPumpTest, SearchesAtMostTenTimesASecondAndSkipsPicturesWhileBusy) {
  auto owned = std::make_unique<ScriptedDetector>();
  ScriptedDetector& detector = *owned;
  FaceOutlineView outline;
  FaceDetectorPump pump(std::move(owned), outline);
  // Two seconds of 32 fps pictures: every fourth is the first 0.1 s after the last search.
  for (int n = 0; n < 64; ++n) {
    pump.onVideoFrame(testing::solidFrame(64, 48, 100, n / 32.0));
    waitFor([&] { return pump.idle(); });
  }
  EXPECT_EQ(pump.searches(), 16);
  EXPECT_EQ(detector.calls.load(), 16);

  // While a search runs, later pictures are dropped rather than queued.
  detector.held = true;
  const int before = pump.searches();
  for (int n = 0; n < 10; ++n) pump.onVideoFrame(testing::solidFrame(64, 48, 100, 10 + n));
  EXPECT_EQ(pump.searches(), before + 1);
  detector.held = false;
}

TEST(FaceDetectorPumpTest, ShrinksLargePicturesAndMapsBoxesBackKeepingIdentifiers) {
  auto owned = std::make_unique<ScriptedDetector>();
  ScriptedDetector& detector = *owned;
  owned->boxes = {{10, 10, 20, 20}, {200, 100, 40, 40}};
  FaceOutlineView outline;
  std::vector<std::pair<int64_t, FaceRect>> found;
  std::mutex foundMutex;
  FaceDetectorPump pump(
      std::move(owned), outline,
      [](const FaceRect& rect, int, int) {
        return FaceRect{rect.x - 100, rect.y, rect.width, rect.height};
      },
      [&](int64_t id, const FaceRect& rect) {
        std::lock_guard lock(foundMutex);
        found.emplace_back(id, rect);
      });
  pump.onVideoFrame(testing::solidFrame(1920, 1080, 90, 0.0));
  waitFor([&] { return outline.faceRects().size() == 2; });
  EXPECT_EQ(detector.lastWidth.load(), 480);  // searched at a quarter size
  auto faces = outline.faceRects();
  ASSERT_EQ(faces.size(), 2u);
  EXPECT_EQ(faces.begin()->second, (FaceRect{-60, 40, 80, 80}));

  // The first face moves a little, the second leaves, a new one appears.
  {
    std::lock_guard lock(detector.mutex);
    detector.boxes = {{12, 11, 20, 20}, {100, 20, 30, 30}};
  }
  const int64_t firstId = faces.begin()->first;
  pump.onVideoFrame(testing::solidFrame(1920, 1080, 90, 0.5));
  waitFor([&] {
    return detector.calls.load() == 2 && outline.faceRects().count(firstId) &&
           outline.faceRects().size() == 2 && outline.faceRects().at(firstId).x == -52;
  });
  faces = outline.faceRects();
  ASSERT_EQ(faces.size(), 2u);
  EXPECT_EQ(faces.at(firstId), (FaceRect{-52, 44, 80, 80}));
  std::lock_guard lock(foundMutex);
  ASSERT_EQ(found.size(), 4u);
  EXPECT_EQ(found[2].first, firstId);
  EXPECT_NE(found[3].first, found[1].first);  // a new face, not the one that left
}

TEST(FaceDetectorPumpTest, FollowsTheFaceOfARealPhotographShownAsACameraPicture) {
  if (!std::filesystem::exists(testing::kFacePhotograph)) {
    GTEST_SKIP() << "opencv-doc is not installed";
  }
  OptionalError error;
  auto detector = makeFaceDetector(error);
  ASSERT_TRUE(detector) << error->message;
  // The photograph doubled to 1096 x 684, as a camera's larger picture would hold it.
  const testing::GrayPicture photo = testing::grayFromFile(testing::kFacePhotograph);
  ASSERT_GT(photo.width, 0);
  const int width = photo.width * 2;
  const int height = photo.height * 2;
  std::vector<uint8_t> big(static_cast<size_t>(width) * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x)
      big[y * width + x] = photo.pixels[(y / 2) * photo.width + x / 2];
  }
  FaceOutlineView outline;
  FaceDetectorPump pump(std::move(detector), outline);
  pump.onVideoFrame(testing::frameFromGray(big, width, height));
  waitFor([&] { return !outline.faceRects().empty(); });
  const auto faces = outline.faceRects();
  ASSERT_EQ(faces.size(), 1u);
  const FaceRect face = faces.begin()->second;
  // The player's face, around (488, 224) at this size.
  EXPECT_LT(face.x, 488);
  EXPECT_GT(face.x + face.width, 488);
  EXPECT_LT(face.y, 224);
  EXPECT_GT(face.y + face.height, 224);
}

}  // namespace
}  // namespace nembra
