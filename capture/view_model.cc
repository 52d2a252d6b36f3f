#include "capture/view_model.h"

#include <algorithm>
#include <random>

#include "platform/files/file_system.h"
#include "platform/system/capture_hardware.h"

namespace nembra {

namespace {

constexpr float kSilenceDecibels = -50.0f;

}  // namespace

ViewModel::ViewModel(TaskQueue& mainQueue) : manager_(mainQueue) {
  manager_.onLevel = [this](float decibels) {
    if (audioMeteringLevelUpdate) audioMeteringLevelUpdate(normalizedLevel(decibels));
  };
  manager_.onFailure = [this](const Error& error) {
    if (audioDidFail) audioDidFail(error);
  };
  manager_.onPlaybackFinished = [this] {
    if (audioDidFinish) audioDidFinish();
  };
}

float ViewModel::normalizedLevel(float decibels) {
  if (decibels <= kSilenceDecibels) return 0.0f;
  return std::min(1.0f, (decibels - kSilenceDecibels) / -kSilenceDecibels);
}

void ViewModel::askAudioRecordingPermission(const std::function<void(bool)>& completion) {
  // The virtual microphone and PulseAudio need no device node; ALSA's do.
  CaptureHardware hardware;
  completion(!hardware.hasMicrophone() || hardware.microphonePermission());
}

std::string ViewModel::newTakePath() const {
  const std::string directory =
      directory_.empty() ? FileSystem::shared().temporaryDirectory() : directory_;
  std::random_device random;
  char name[64];
  std::snprintf(name, sizeof name, "audio-%08x%08x.m4a", random(), random());
  return directory + "/" + name;
}

void ViewModel::startRecording(const std::function<void(const std::optional<std::string>&,
                                                        const OptionalError&)>& completion) {
  manager_.setMeteringInterval(audioVisualizationTimeInterval);
  const std::string path = newTakePath();
  if (auto error = manager_.record(path)) {
    completion(std::nullopt, error);
    return;
  }
  audioFilePathLocal = path;
  completion(path, std::nullopt);
}

OptionalError ViewModel::stopRecording() {
  OptionalError error = manager_.stop();
  duration_ = manager_.recordedSeconds();
  return error;
}

void ViewModel::resetRecording() {
  manager_.deleteRecording();
  audioFilePathLocal.reset();
  meteringLevels.reset();
  duration_ = 0;
}

double ViewModel::startPlaying() {
  manager_.play();
  return duration_;
}

}  // namespace nembra
