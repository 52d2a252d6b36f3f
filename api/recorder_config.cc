#include "nembra/recorder_config.h"

#include <algorithm>

#include "api/config_line.h"
#include "api/extra_args.h"
#include "nembra/still_image.h"

namespace nembra {

namespace {

int32_t qualityBitrate(int32_t quality) {
  switch (quality) {
    case QUALITY_LOW:
      return 1536000;
    case QUALITY_MEDIUM:
      return 2560000;
    default:
      return 5120000;
  }
}

int32_t qualityLines(int32_t quality) {
  switch (quality) {
    case QUALITY_LOW:
      return 480;
    case QUALITY_MEDIUM:
      return 720;
    default:
      return 1080;
  }
}

}  // namespace

RecorderConfig::RecorderConfig() { setVideoQuality(QUALITY_HIGH); }

void RecorderConfig::setStartDelay(int32_t seconds) { startDelay_ = std::max(seconds, 0); }

void RecorderConfig::setMaxDuration(int64_t seconds) {
  maxDuration_ = std::max(seconds, int64_t{0});
}

void RecorderConfig::setVideoQuality(int32_t quality) {
  videoQuality_ = quality;
  videoBitrate_ = qualityBitrate(quality);
  updateVideoSize();
}

void RecorderConfig::setResolution(VideoSize size) {
  resolution_ = std::move(size);
  updateVideoSize();
}

void RecorderConfig::updateVideoSize() {
  if (!resolution_.aspectRatio) resolution_.aspectRatio = VideoSize().aspectRatio;
  const int32_t lines = qualityLines(videoQuality_);
  resolution_.height = lines;
  resolution_.width =
      static_cast<int32_t>(static_cast<float>(lines) * resolution_.aspectRatio->toFloat());
}

void RecorderConfig::setExtraArgs(const Json& args) { extraArgs_ = extraArgsCopy(args); }

void RecorderConfig::addExtraArgs(const Json& args) {
  extraArgs_ = mergedExtraArgs(extraArgs_, args);
}

std::string RecorderConfig::stringValueConfig() const {
  return configJsonLine({{"shouldShowFaceOutline", flagText(shouldShowFaceOutline_)},
                         {"isLiveStreaming", flagText(isLiveStreaming_)},
                         {"shouldAutoStartRecording", flagText(shouldAutoStartRecording_)},
                         {"startDelay", std::to_string(startDelay_)},
                         {"blurMode", flagText(blurMode_)},
                         {"shouldSendImmediately", flagText(shouldSendImmediately_)},
                         {"shouldDisableCameraSwitch", flagText(shouldDisableCameraSwitch_)},
                         {"videoQuality", std::to_string(videoQuality_)},
                         {"facing", std::to_string(facing_)},
                         {"maxDuration", std::to_string(maxDuration_)},
                         {"shouldEnableCoverShot", flagText(shouldEnableCoverShot_)},
                         {"shouldConfirmStopRecording", flagText(shouldConfirmStopRecording_)},
                         {"isPausedMode", flagText(isPausedMode_)},
                         {"extraArgs", dictionaryDescription(extraArgs_)}});
}

}  // namespace nembra
