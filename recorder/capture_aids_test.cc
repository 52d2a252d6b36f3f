// The aids as the recorder uses them: readings from the camera's thread reach the meters and the
// sensor delegate on the main queue, and faces found reach the outline and the delegate.
#include "recorder/capture_aids.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/media/testing/media_test_files.h"
#include "platform/ui/headless_screen_view.h"
#include "recorder/testing/test_frames.h"

namespace nembra {
namespace {

class OneFaceDetector final : public FaceDetector {
 public:
  std::vector<FaceBox> detect(const GrayImageView&) override { return {{40, 30, 20, 20}}; }
};

class CaptureAidsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sensor_ = std::make_shared<NembraSensorDelegate>();
    sensor_->luxMeter = [this](double value) { brightness_.push_back(value); };
    sensor_->audioMeter = [this](double value) { levels_.push_back(value); };
    sensor_->faceDetected = [this](int64_t id, const NembraRect& rect) {
      faces_.emplace_back(id, rect);
    };
    nembra_.setSensorDelegate(sensor_);
    aids_ = std::make_shared<CaptureAids>(nembra_, queue_);
    aids_->attach(&view_);
  }

  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  HeadlessScreenView view_{"recorder"};
  std::shared_ptr<NembraSensorDelegate> sensor_;
  std::shared_ptr<CaptureAids> aids_;
  std::vector<double> brightness_;
  std::vector<double> levels_;
  std::vector<std::pair<int64_t, NembraRect>> faces_;
};

TEST_F(CaptureAidsTest, ReadingsFromTheCameraThreadReachTheMetersAndTheSensorDelegate) {
  std::thread camera([this] {
    aids_->onVideoFrame(testing::solidFrame(64, 48, 118, 0.0));
    const std::vector<int16_t> loud(1024, -20000);
    aids_->onAudioSamples(loud.data(), loud.size(), 2);
    const std::vector<int16_t> quiet(1024, 0);
    aids_->onAudioSamples(quiet.data(), quiet.size(), 2);
  });
  camera.join();
  EXPECT_TRUE(brightness_.empty());  // nothing is told off the main queue
  queue_.runUntilIdle();
  ASSERT_EQ(brightness_.size(), 1u);
  EXPECT_NEAR(brightness_[0], 2.0, 1e-9);
  EXPECT_EQ(view_.button(LuxMeterView::kButton)->image, "sun-white");
  EXPECT_EQ(levels_, (std::vector<double>{1.0, 0.0}));                    // each buffer's own level
  EXPECT_NEAR(view_.slider(AudioLevelView::kSlider)->value, 0.95, 1e-9);  // the meter decays

  // Updates still queued when the aids go are dropped, not run on a dead object.
  aids_->onVideoFrame(testing::solidFrame(64, 48, 10, 0.1));
  aids_.reset();
  queue_.runUntilIdle();
  EXPECT_EQ(brightness_.size(), 1u);
}

TEST_F(CaptureAidsTest, FacesFoundAreOutlinedAndToldInPreviewCoordinates) {
  aids_->enableFaceDetection(std::make_unique<OneFaceDetector>(),
                             [](const FaceRect& rect, int, int) {
                               return FaceRect{rect.x - 10, rect.y, rect.width, rect.height};
                             });
  aids_->onVideoFrame(testing::solidFrame(160, 120, 100, 0.0));
  ASSERT_TRUE(queue_.runUntil([&] { return !faces_.empty(); }, std::chrono::seconds(5)));
  EXPECT_EQ(faces_[0].second.x, 30);
  EXPECT_EQ(faces_[0].second.width, 20);
  auto picture = testing::solidFrame(160, 120, 100);
  aids_->drawFaces(*picture);
  EXPECT_EQ(testing::lumaAt(*picture, 30, 30), 210);
  EXPECT_EQ(testing::lumaAt(*picture, 40, 40), 100);
}

TEST_F(CaptureAidsTest, TheConfiguredOutlineImageIsDrawnOverTheFaceAndABadOneRefused) {
  testing::MediaTestFiles files;
  const std::string path =
      files.make("white.png", {"-f", "lavfi", "-i", "color=c=white:s=16x16", "-frames:v", "1"});
  ASSERT_FALSE(path.empty());
  auto image = std::make_shared<StillImage>();
  std::ifstream in(path, std::ios::binary);
  image->data.assign(std::istreambuf_iterator<char>(in), {});
  image->format = "png";
  ASSERT_FALSE(aids_->setFaceOutlineDrawable(image));
  aids_->faceOutlineView().addFace(1, {20, 20, 40, 40});
  auto picture = testing::solidFrame(100, 100, 30);
  aids_->drawFaces(*picture);
  EXPECT_GT(testing::lumaAt(*picture, 40, 40), 230);  // the whole face, not only its edge
  EXPECT_EQ(testing::lumaAt(*picture, 10, 10), 30);

  auto broken = std::make_shared<StillImage>();
  broken->data = {0x89, 'P', 'N', 'G', 1, 2, 3};
  EXPECT_TRUE(aids_->setFaceOutlineDrawable(broken));
  auto again = testing::solidFrame(100, 100, 30);
  aids_->drawFaces(*again);
  EXPECT_GT(testing::lumaAt(*again, 40, 40), 230);  // the good image stays
}

}  // namespace
}  // namespace nembra
