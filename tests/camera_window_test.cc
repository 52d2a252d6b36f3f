// The camera screens in a real window (Xvfb): the preview shows the camera's pictures, cropped
// to fill the picture area, and a QR code shown to the camera closes the scanner.
#include <gtest/gtest.h>

#include <cstdlib>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/media/testing/media_test_files.h"
#include "platform/ui/screen_presenter.h"
#include "platform/ui/testing/xvfb_display.h"
#include "platform/ui/window_ui.h"
#include "recorder/capture_aid_module.h"

namespace nembra {
namespace {

bool near(std::array<uint8_t, 3> got, std::array<int, 3> want, int tolerance = 50) {
  for (int i = 0; i < 3; ++i) {
    if (std::abs(got[i] - want[i]) > tolerance) return false;
  }
  return true;
}

class CameraWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    if (xvfb_.display().empty()) GTEST_SKIP() << "Xvfb cannot be started";
    ::setenv("DISPLAY", xvfb_.display().c_str(), 1);
    ::unsetenv("WAYLAND_DISPLAY");
    WindowUi::Options options;
    options.width = 640;
    options.height = 480;
    OptionalError error;
    window_ = WindowUi::open(queue_, options, error);
    ASSERT_TRUE(window_) << error->message;
    presenter_ = std::make_shared<ScreenPresenter>(*window_, queue_);
    nembra_.setScreenPresenter(presenter_);
  }
  void TearDown() override {
    presenter_.reset();
    window_.reset();
  }

  testing::XvfbDisplay xvfb_;
  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  std::unique_ptr<WindowUi> window_;
  std::shared_ptr<ScreenPresenter> presenter_;
};

TEST_F(CameraWindowTest, ThePreviewFillsTheAreaWithTheCamerasMiddle) {
  // A camera twice as wide as tall: green outer quarters, a red middle half.
  CaptureAidScreenOptions options;
  options.camera.camera =
      "lavfi:color=c=green:s=640x320:r=15,drawbox=x=160:y=0:w=320:h=320:color=red:t=fill,"
      "format=yuv420p,realtime";
  installCaptureAidScreens(options);
  nembra_.startImageRecorder();
  WindowScreenshot shot;
  const bool shown = queue_.runUntil(
      [&] {
        window_->screenshot(shot);
        return near(shot.at(320, 200), {255, 0, 0});
      },
      std::chrono::seconds(10));
  ASSERT_TRUE(shown);
  // Filling the narrower area cuts the sides off and enlarges the rest: the red reaches x 130
  // and 510, where a picture shown whole would still be green.
  EXPECT_TRUE(near(shot.at(130, 200), {255, 0, 0}));
  EXPECT_TRUE(near(shot.at(510, 200), {255, 0, 0}));
  presenter_->dismissAll();
  queue_.runUntilIdle();
}

}  // namespace
}  // namespace nembra
