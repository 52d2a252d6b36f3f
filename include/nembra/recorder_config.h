// How the camera recorder records: countdown, limits, quality, camera, audio, what the screen
// offers, and the extra fields sent with every video it creates.
//
// Threading: a plain value; read and replace it from the main queue. The recorder reads each
// field when it needs it, so a change takes effect at its next use.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "nembra/cache_config.h"
#include "nembra/camera_recorder_style.h"
#include "nembra/json.h"
#include "nembra/rgba_color.h"
#include "nembra/stop_recording_confirmation_dialog_config.h"
#include "nembra/video_size.h"

namespace nembra {

struct StillImage;

// Quality presets: the lines of the recorded picture and its average H.264 bit rate.
inline constexpr int32_t QUALITY_HIGH = 0;    // 1080 lines, 5,120,000 bit/s
inline constexpr int32_t QUALITY_MEDIUM = 1;  // 720 lines, 2,560,000 bit/s
inline constexpr int32_t QUALITY_LOW = 2;     // 480 lines, 1,536,000 bit/s

inline constexpr int32_t FACING_BACK = 0;
inline constexpr int32_t FACING_FRONT = 1;

inline constexpr int32_t DEFAULT_START_DELAY = 3;  // seconds
// A power of two rather than 64000: the value recordings have always been made with.
inline constexpr int32_t DEFAULT_AUDIO_BITRATE = 65536;
inline constexpr int32_t DEFAULT_AUDIO_SAMPLE_RATE = 48000;

class RecorderConfig {
 public:
  // Defaults as declared below; the video bit rate and the resolution follow QUALITY_HIGH.
  RecorderConfig();

  bool getShouldShowFaceOutline() const { return shouldShowFaceOutline_; }
  bool shouldShowFaceOutline() const { return shouldShowFaceOutline_; }
  void setShouldShowFaceOutline(bool value) { shouldShowFaceOutline_ = value; }

  // Streams live instead of recording a file.
  bool getIsLiveStreaming() const { return isLiveStreaming_; }
  bool isLiveStreaming() const { return isLiveStreaming_; }
  void setIsLiveStreaming(bool value) { isLiveStreaming_ = value; }
  void setLiveStreaming(bool value) { isLiveStreaming_ = value; }

  // Starts on appearance (with a start delay above 0) and counts down.
  bool getShouldAutoStartRecording() const { return shouldAutoStartRecording_; }
  bool shouldAutoStartRecording() const { return shouldAutoStartRecording_; }
  void setShouldAutoStartRecording(bool value) { shouldAutoStartRecording_ = value; }

  // Stored and reported; the camera recorder does not read it.
  bool getIsImageOnlyMode() const { return isImageOnlyMode_; }
  bool isImageOnlyMode() const { return isImageOnlyMode_; }
  void setIsImageOnlyMode(bool value) { isImageOnlyMode_ = value; }

  // Shows the pause button while recording.
  bool getIsPausedMode() const { return isPausedMode_; }
  bool isPausedMode() const { return isPausedMode_; }
  void setIsPausedMode(bool value) { isPausedMode_ = value; }

  // Skips the recorded-video preview and uploads at once.
  bool getShouldSendImmediately() const { return shouldSendImmediately_; }
  bool shouldSendImmediately() const { return shouldSendImmediately_; }
  void setShouldSendImmediately(bool value) { shouldSendImmediately_ = value; }

  bool getShouldDisableCameraSwitch() const { return shouldDisableCameraSwitch_; }
  bool shouldDisableCameraSwitch() const { return shouldDisableCameraSwitch_; }
  void setShouldDisableCameraSwitch(bool value) { shouldDisableCameraSwitch_ = value; }

  // Offers the background-blur switch (never while live streaming).
  bool getBlurMode() const { return blurMode_; }
  bool blurMode() const { return blurMode_; }
  void setBlurMode(bool value) { blurMode_ = value; }

  // Lets the user pick a cover frame before the upload.
  bool getShouldEnableCoverShot() const { return shouldEnableCoverShot_; }
  bool shouldEnableCoverShot() const { return shouldEnableCoverShot_; }
  void setShouldEnableCoverShot(bool value) { shouldEnableCoverShot_ = value; }

  bool getShouldConfirmStopRecording() const { return shouldConfirmStopRecording_; }
  bool shouldConfirmStopRecording() const { return shouldConfirmStopRecording_; }
  void setShouldConfirmStopRecording(bool value) { shouldConfirmStopRecording_ = value; }

  // Countdown seconds; a negative value is stored as 0.
  int32_t getStartDelay() const { return startDelay_; }
  void setStartDelay(int32_t seconds);

  // One of the QUALITY_ presets; any other value records as QUALITY_HIGH. Setting it also sets
  // the video bit rate and recomputes the resolution.
  int32_t getVideoQuality() const { return videoQuality_; }
  void setVideoQuality(int32_t quality);

  // FACING_BACK or FACING_FRONT, read when the capture session is configured.
  int32_t getFacing() const { return facing_; }
  void setFacing(int32_t facing) { facing_ = facing; }

  // Average H.264 bit rate; setVideoQuality overwrites it.
  int32_t getVideoBitrate() const { return videoBitrate_; }
  void setVideoBitrate(int32_t bitsPerSecond) { videoBitrate_ = bitsPerSecond; }

  int32_t getAudioBitrate() const { return audioBitrate_; }
  void setAudioBitrate(int32_t bitsPerSecond) { audioBitrate_ = bitsPerSecond; }

  int32_t getAudioSampleRate() const { return audioSampleRate_; }
  void setAudioSampleRate(int32_t hertz) { audioSampleRate_ = hertz; }

  CameraRecorderStyle& getStyle() { return style_; }
  const CameraRecorderStyle& getStyle() const { return style_; }
  void setStyle(CameraRecorderStyle style) { style_ = style; }

  // Null: the recorder's own outline.
  const std::shared_ptr<const StillImage>& getFaceOutlineDrawable() const {
    return faceOutlineDrawable_;
  }
  void setFaceOutlineDrawable(std::shared_ptr<const StillImage> image) {
    faceOutlineDrawable_ = std::move(image);
  }

  // Seconds; 0 means no limit, and a negative value is stored as 0.
  int64_t getMaxDuration() const { return maxDuration_; }
  void setMaxDuration(int64_t seconds);

  // Shown over the preview while the camera is stopped.
  RgbaColor getColorForStoppedCameraOverlay() const { return colorForStoppedCameraOverlay_; }
  void setColorForStoppedCameraOverlay(RgbaColor color) { colorForStoppedCameraOverlay_ = color; }
  const std::shared_ptr<const StillImage>& getDrawableForStoppedCameraOverlay() const {
    return drawableForStoppedCameraOverlay_;
  }
  void setDrawableForStoppedCameraOverlay(std::shared_ptr<const StillImage> image) {
    drawableForStoppedCameraOverlay_ = std::move(image);
  }

  // Landscape output size; the recorder swaps the sides for portrait recordings.
  const VideoSize& getResolution() const { return resolution_; }
  // Only the aspect ratio of |size| is kept: width and height are recomputed from the quality.
  // A size without a ratio takes the main display's, as a fresh VideoSize does.
  void setResolution(VideoSize size);
  // Height := the quality's lines, width := lines × x / y in single precision, truncated.
  void updateVideoSize();

  CacheConfig& getCacheConfig() { return cacheConfig_; }
  const CacheConfig& getCacheConfig() const { return cacheConfig_; }
  void setCacheConfig(CacheConfig config) { cacheConfig_ = std::move(config); }

  StopRecordingConfirmationDialogConfig& getStopRecordingConfirmationDialogConfig() {
    return stopRecordingConfirmationDialogConfig_;
  }
  const StopRecordingConfirmationDialogConfig& getStopRecordingConfirmationDialogConfig() const {
    return stopRecordingConfirmationDialogConfig_;
  }
  void setStopRecordingConfirmationDialogConfig(StopRecordingConfirmationDialogConfig config) {
    stopRecordingConfirmationDialogConfig_ = std::move(config);
  }

  // Sent unchanged as the data of every video the recorder creates. An object; stores a copy,
  // anything other than an object stores an empty object.
  const Json& getExtraArgs() const { return extraArgs_; }
  const Json& extraArgs() const { return extraArgs_; }
  void setExtraArgs(const Json& args);
  // Merges |args| over the present entries: a key given again wins.
  void addExtraArgs(const Json& args);

  std::string stringValueConfig() const;

 private:
  bool shouldShowFaceOutline_ = false;
  bool isLiveStreaming_ = false;
  bool shouldAutoStartRecording_ = true;
  bool isImageOnlyMode_ = false;
  bool isPausedMode_ = false;
  bool shouldSendImmediately_ = false;
  bool shouldDisableCameraSwitch_ = false;
  bool blurMode_ = false;
  bool shouldEnableCoverShot_ = false;
  bool shouldConfirmStopRecording_ = false;
  int32_t startDelay_ = DEFAULT_START_DELAY;
  int32_t videoQuality_ = QUALITY_HIGH;
  int32_t facing_ = FACING_BACK;
  int32_t videoBitrate_ = 2097152;  // replaced by the quality's rate in the constructor
  int32_t audioBitrate_ = DEFAULT_AUDIO_BITRATE;
  int32_t audioSampleRate_ = DEFAULT_AUDIO_SAMPLE_RATE;
  CameraRecorderStyle style_;
  std::shared_ptr<const StillImage> faceOutlineDrawable_;
  int64_t maxDuration_ = 0;
  RgbaColor colorForStoppedCameraOverlay_ = RgbaColor::clear();
  std::shared_ptr<const StillImage> drawableForStoppedCameraOverlay_;
  VideoSize resolution_;
  CacheConfig cacheConfig_;
  StopRecordingConfirmationDialogConfig stopRecordingConfirmationDialogConfig_;
  Json extraArgs_ = Json::object();
};

}  // namespace nembra
