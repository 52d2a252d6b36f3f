#include "nembra/recorder_config.h"

#include <gtest/gtest.h>

#include "nembra/button_config.h"
#include "nembra/qr_scanner_config.h"
#include "nembra/recorder_interface_config.h"

namespace nembra {
namespace {

VideoSize sizeOf(int32_t width, int32_t height, std::optional<AspectRatio> ratio) {
  std::optional<VideoSize> size = VideoSize::initWithWidth(width, height, ratio);
  EXPECT_TRUE(size.has_value());
  return size.value_or(VideoSize());
}

TEST(RecorderConfigTest, FreshConfigRecordsHighQualityAfterACountdown) {
  RecorderConfig config;
  EXPECT_EQ(config.getVideoBitrate(), 5120000);
  EXPECT_EQ(config.getResolution().height, 1080);
  EXPECT_EQ(config.getStartDelay(), 3);
  EXPECT_EQ(config.getAudioBitrate(), 65536);
  EXPECT_EQ(config.getAudioSampleRate(), 48000);
  EXPECT_TRUE(config.shouldAutoStartRecording());
  // The width follows the display's ratio, whatever display the machine has.
  const AspectRatio ratio = *VideoSize().aspectRatio;
  EXPECT_EQ(config.getResolution().width, static_cast<int32_t>(1080.0f * ratio.toFloat()));
  EXPECT_EQ(config.getColorForStoppedCameraOverlay(), RgbaColor::clear());
  EXPECT_EQ(config.getFaceOutlineDrawable(), nullptr);
}

TEST(RecorderConfigTest, QualitySetsBitrateAndLines) {
  struct Case {
    int32_t quality;
    int32_t bitrate;
    int32_t width;
    int32_t height;
  };
  const Case cases[] = {
      {QUALITY_HIGH, 5120000, 1920, 1080},
      {QUALITY_MEDIUM, 2560000, 1280, 720},
      {QUALITY_LOW, 1536000, 853, 480},  // 480 × 16 / 9 truncated
      {7, 5120000, 1920, 1080},          // unknown presets record as high
      {-1, 5120000, 1920, 1080},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.quality);
    RecorderConfig config;
    config.setResolution(sizeOf(1920, 1080, AspectRatio(16, 9)));
    config.setVideoBitrate(1);
    config.setVideoQuality(c.quality);
    EXPECT_EQ(config.getVideoQuality(), c.quality);
    EXPECT_EQ(config.getVideoBitrate(), c.bitrate);
    EXPECT_EQ(config.getResolution().width, c.width);
    EXPECT_EQ(config.getResolution().height, c.height);
  }
}

TEST(RecorderConfigTest, ResolutionKeepsOnlyItsRatio) {
  RecorderConfig config;
  config.setVideoQuality(QUALITY_MEDIUM);
  config.setResolution(sizeOf(640, 480, AspectRatio(4, 3)));
  EXPECT_EQ(config.getResolution().width, 960);
  EXPECT_EQ(config.getResolution().height, 720);
  EXPECT_EQ(config.getResolution().aspectRatio, AspectRatio(4, 3));

  // A later quality change rescales the same ratio.
  config.setVideoQuality(QUALITY_HIGH);
  EXPECT_EQ(config.getResolution().width, 1440);
  EXPECT_EQ(config.getResolution().height, 1080);

  // A size without a ratio falls back to the display's instead of collapsing to zero width.
  config.setResolution(sizeOf(640, 0, std::nullopt));
  ASSERT_TRUE(config.getResolution().aspectRatio.has_value());
  EXPECT_EQ(config.getResolution().aspectRatio, VideoSize().aspectRatio);
  EXPECT_GT(config.getResolution().width, 0);
  EXPECT_EQ(config.getResolution().height, 1080);
}

TEST(RecorderConfigTest, NegativeDelaysAndLimitsBecomeZero) {
  RecorderConfig config;
  config.setStartDelay(-5);
  EXPECT_EQ(config.getStartDelay(), 0);
  config.setStartDelay(10);
  EXPECT_EQ(config.getStartDelay(), 10);
  config.setMaxDuration(-1);
  EXPECT_EQ(config.getMaxDuration(), 0);
  config.setMaxDuration(int64_t{1} << 40);
  EXPECT_EQ(config.getMaxDuration(), int64_t{1} << 40);
}

TEST(RecorderConfigTest, ExtraArgsAreCopiedAndMergedWithNewValuesWinning) {
  RecorderConfig config;
  Json given = {{"client_auth", "a"}, {"title", "t"}};
  config.setExtraArgs(given);
  given["client_auth"] = "changed";
  EXPECT_EQ(config.extraArgs()["client_auth"], "a");

  config.addExtraArgs({{"client_auth", "b"}, {"server_auth", "s"}});
  EXPECT_EQ(config.getExtraArgs(),
            (Json{{"client_auth", "b"}, {"title", "t"}, {"server_auth", "s"}}));
  config.addExtraArgs(Json::array());
  EXPECT_EQ(config.getExtraArgs().size(), 3u);
  config.setExtraArgs(nullptr);
  EXPECT_EQ(config.getExtraArgs(), Json::object());
}

TEST(RecorderConfigTest, DescriptionsKeepTheirKeysOrderAndBlanks) {
  RecorderConfig config;
  EXPECT_EQ(
      config.stringValueConfig(),
      "{                        \"shouldShowFaceOutline\": 0,                         "
      "\"isLiveStreaming\": 0,                         \"shouldAutoStartRecording\": 1,            "
      "             \"startDelay\": 3,                         \"blurMode\": 0,                    "
      "     \"shouldSendImmediately\": 0,                         \"shouldDisableCameraSwitch\": "
      "0,                         \"videoQuality\": 0,                         \"facing\": 0,      "
      "                   \"maxDuration\": 0,                         \"shouldEnableCoverShot\": "
      "0,                         \"shouldConfirmStopRecording\": 0,                         "
      "\"isPausedMode\": 0,                         \"extraArgs\": {\n}}");

  config.setShouldShowFaceOutline(true);
  config.setLiveStreaming(true);
  config.setShouldAutoStartRecording(false);
  config.setStartDelay(0);
  config.setBlurMode(true);
  config.setShouldSendImmediately(true);
  config.setShouldDisableCameraSwitch(true);
  config.setVideoQuality(QUALITY_LOW);
  config.setFacing(FACING_FRONT);
  config.setMaxDuration(5000000000);
  config.setShouldEnableCoverShot(true);
  config.setShouldConfirmStopRecording(true);
  config.setIsPausedMode(true);
  config.setIsImageOnlyMode(true);  // not reported
  config.setExtraArgs({{"note", "two words"}, {"client_auth", "abc"}});
  EXPECT_EQ(
      config.stringValueConfig(),
      "{                        \"shouldShowFaceOutline\": 1,                         "
      "\"isLiveStreaming\": 1,                         \"shouldAutoStartRecording\": 0,            "
      "             \"startDelay\": 0,                         \"blurMode\": 1,                    "
      "     \"shouldSendImmediately\": 1,                         \"shouldDisableCameraSwitch\": "
      "1,                         \"videoQuality\": 2,                         \"facing\": 1,      "
      "                   \"maxDuration\": 5000000000,                         "
      "\"shouldEnableCoverShot\": 1,                         \"shouldConfirmStopRecording\": 1,    "
      "                     \"isPausedMode\": 1,                         \"extraArgs\": {\n    "
      "client_auth = abc;\n    note = \"two words\";\n}}");

  StopRecordingConfirmationDialogConfig dialog;
  EXPECT_EQ(dialog.stringValueConfig(),
            "{                        \"titleText\": Nembra,                         \"mesText\": "
            "Do you want to stop video recording?,                         \"posBtnText\": Yes,    "
            "                     \"negBtnText\": No}");

  QrScannerConfig scanner;
  EXPECT_EQ(scanner.stringValueConfig(),
            "{                        \"shouldCloseAfterSuccessfulScan\": 1}");
  scanner.setShouldCloseAfterSuccessfulScan(false);
  EXPECT_EQ(scanner.stringValueConfig(),
            "{                        \"shouldCloseAfterSuccessfulScan\": 0}");

  CameraRecorderStyle style;
  style.setHideControls(true);
  EXPECT_EQ(style.stringValueConfig(), "{                        \"hideControls\": 1}");
}

TEST(RecorderInterfaceConfigTest, EachButtonDescribesItself) {
  RecorderInterfaceConfig interface;
  interface.getPauseButton().setImagePath("pause.png");
  interface.getPauseButton().setScale(0.5f);
  interface.getPauseButton().setWidth(44);
  EXPECT_EQ(interface.getPauseButton().stringValueConfig(),
            "{                        \"imagePath\": pause.png,                         "
            "\"selectedImagePath\": (null),                         \"scale\": 0.5,                "
            "         \"width\": 44,                         \"height\": 0}");
  const std::string fresh = ButtonConfig().stringValueConfig();
  EXPECT_EQ(fresh,
            "{                        \"imagePath\": (null),                         "
            "\"selectedImagePath\": (null),                         \"scale\": 1,                  "
            "       \"width\": 0,                         \"height\": 0}");
  EXPECT_EQ(interface.stringValueConfig(),
            "{" + std::string(24, ' ') + "\"recordButton\": " + fresh + "," + std::string(25, ' ') +
                "\"closeButton\": " + fresh + "," + std::string(25, ' ') +
                "\"pauseButton\": " + interface.getPauseButton().stringValueConfig() + "," +
                std::string(25, ' ') + "\"cameraFlipButton\": " + fresh + "}");
}

}  // namespace
}  // namespace nembra
