// The QR scanner and the still-image recorder through the headless adapter, over virtual cameras:
// a QR code made by qrencode and shown by FFmpeg as a camera's pictures, and the test pattern.
#include "api/capture_aid_screens.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/files/file_system.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/media/media_backend.h"
#include "platform/media/testing/media_test_files.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"
#include "platform/vision/testing/gray_pictures.h"
#include "recorder/capture_aid_module.h"
#include "recorder/image_recorder.h"

namespace nembra {
namespace {

class CaptureAidScreensTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    FileSystem::shared().setRoot(scratch_.path() + "/root");
    nembra_.config().useSingleServer("http://127.0.0.1:9");  // nothing listens there
    presenter_ = std::make_shared<ScreenPresenter>(ui_, queue_);
    nembra_.setScreenPresenter(presenter_);
    delegate_ = std::make_shared<NembraQRScannerDelegate>();
    delegate_->qrCodeScanned = [this](const std::string& text) { scanned_.push_back(text); };
    nembra_.setQRScannerDelegate(delegate_);
  }
  void TearDown() override { CaptureAidScreens::install(nullptr); }

  // A virtual camera showing a QR code of |text| on a white 640 x 480 picture, ten times a
  // second.
  std::string qrCamera(const std::string& text) {
    const std::string png = files_.path("code.png");
    EXPECT_TRUE(testing::makeQrPng(png, text));
    return "lavfi:movie=" + png +
           ":loop=0,setpts=N/10/TB,pad=640:480:(ow-iw)/2:(oh-ih)/2:white,format=yuv420p,realtime";
  }
  void install(const std::string& camera) {
    CaptureAidScreenOptions options;
    options.camera.camera = camera;
    installCaptureAidScreens(options);
  }
  HeadlessScreenView& view() { return *ui_.topView(); }

  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  HeadlessUi ui_;
  std::shared_ptr<ScreenPresenter> presenter_;
  std::shared_ptr<NembraQRScannerDelegate> delegate_;
  std::vector<std::string> scanned_;
  testing::MediaTestFiles files_;
  testing::ScratchDirectory scratch_;
};

TEST_F(CaptureAidScreensTest, QrScannerTellsTheCodeAndClosesAfterTheFirstScan) {
  if (!testing::haveQrencode()) GTEST_SKIP() << "qrencode is not installed";
  install(qrCamera("nembra://video/v1234"));
  nembra_.startQrScanner();
  ASSERT_NE(ui_.topView(), nullptr);
  EXPECT_EQ(view().screenName(), "qr-scanner");
  ASSERT_TRUE(queue_.runUntil([&] { return presenter_->depth() == 0; }, std::chrono::seconds(20)));
  EXPECT_EQ(scanned_, std::vector<std::string>{"nembra://video/v1234"});
}

TEST_F(CaptureAidScreensTest, QrScannerLeftOpenTellsAHeldCodeOnce) {
  if (!testing::haveQrencode()) GTEST_SKIP() << "qrencode is not installed";
  nembra_.qrScannerConfig().setShouldCloseAfterSuccessfulScan(false);
  install(qrCamera("ticket 42"));
  nembra_.startQrScanner();
  ASSERT_TRUE(queue_.runUntil([&] { return !scanned_.empty(); }, std::chrono::seconds(20)));
  // Ten pictures a second keep showing the code for another half second.
  queue_.runUntil([] { return false; }, std::chrono::milliseconds(500));
  EXPECT_EQ(scanned_, std::vector<std::string>{"ticket 42"});
  ASSERT_EQ(presenter_->depth(), 1u);
  EXPECT_EQ(view().label("code"), "ticket 42");
  EXPECT_TRUE(view().press("close"));
  queue_.runUntil([&] { return presenter_->depth() == 0; }, std::chrono::seconds(5));
  EXPECT_EQ(presenter_->depth(), 0u);
}

TEST_F(CaptureAidScreensTest, AMissingCameraIsAnAlertThatClosesTheScreen) {
  install("/nonexistent/video9");
  nembra_.startImageRecorder();
  ASSERT_NE(ui_.topView(), nullptr);
  ASSERT_TRUE(view().alert());
  EXPECT_EQ(view().alert()->title, "Nembra");
  EXPECT_EQ(view().alert()->message, "no camera at /nonexistent/video9");
  EXPECT_FALSE(view().press("capture"));
  EXPECT_TRUE(view().answerAlert("OK"));
  queue_.runUntil([&] { return presenter_->depth() == 0; }, std::chrono::seconds(5));
  EXPECT_EQ(presenter_->depth(), 0u);
}

TEST_F(CaptureAidScreensTest, ImageRecorderWritesAJpegOfTheCamerasSizeAndUploadsIt) {
  CameraFeedOptions camera;
  camera.camera = "lavfi";
  camera.width = 320;
  camera.height = 240;
  OptionalError error;
  auto feed = CameraFeed::open(camera, error);
  ASSERT_TRUE(feed) << error->message;
  auto recorder = std::make_shared<ImageRecorder>(nembra_);
  feed->addObserver(recorder);
  std::optional<ImageRecorderResult> captured;
  std::optional<ImageRecorderResult> uploaded;
  ImageRecorder::Callbacks callbacks;
  callbacks.captured = [&](const ImageRecorderResult& result) { captured = result; };
  callbacks.uploaded = [&](const ImageRecorderResult& result) { uploaded = result; };
  // Asked before the first picture: it takes the next one.
  ASSERT_TRUE(recorder->takePicture(callbacks));
  EXPECT_FALSE(recorder->takePicture({}));
  feed->start();
  ASSERT_TRUE(queue_.runUntil([&] { return uploaded.has_value(); }, std::chrono::seconds(20)));
  feed->stop();

  ASSERT_TRUE(captured);
  EXPECT_FALSE(captured->error);
  EXPECT_EQ(captured->path, FileSystem::shared().documentsDirectory() + "/image.jpg");
  std::ifstream in(captured->path, std::ios::binary);
  std::vector<uint8_t> jpeg((std::istreambuf_iterator<char>(in)), {});
  ImageInfo info;
  ASSERT_FALSE(MediaBackend::shared().makeImageCodec()->inspect(jpeg, info));
  EXPECT_EQ(info.format, "jpeg");
  EXPECT_EQ(info.width, 320);
  EXPECT_EQ(info.height, 240);
  // Nothing listens at the service's address: the upload's failure is reported.
  ASSERT_TRUE(uploaded->error);
  EXPECT_EQ(uploaded->token, "");
  EXPECT_FALSE(recorder->busy());
}

}  // namespace
}  // namespace nembra
