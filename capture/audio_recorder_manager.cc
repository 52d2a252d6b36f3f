#include "capture/audio_recorder_manager.h"

#include <algorithm>
#include <filesystem>

#include "platform/audio/audio_output.h"
#include "platform/dispatch/thread_name.h"
#include "platform/media/media_backend.h"

namespace nembra {

class AudioRecorderManager::PlaybackObserver final : public MediaPlayerObserver {
 public:
  explicit PlaybackObserver(AudioRecorderManager& manager) : manager_(manager) {}
  void playerItemDidPlayToEnd(size_t) override {
    if (manager_.onPlaybackFinished) manager_.onPlaybackFinished();
  }

 private:
  AudioRecorderManager& manager_;
};

AudioRecorderManager::AudioRecorderManager(TaskQueue& mainQueue) : mainQueue_(mainQueue) {}

AudioRecorderManager::~AudioRecorderManager() {
  *alive_ = false;
  if (isRecording()) stop();
  player_.reset();
}

OptionalError AudioRecorderManager::record(const std::string& path) {
  if (isRecording()) stop();
  std::error_code ignored;
  const std::filesystem::path target(path);
  if (path.empty() || !std::filesystem::is_directory(target.parent_path(), ignored)) {
    return Error::file("Incorrect path for new audio file");
  }
  player_.reset();
  OptionalError error;
  source_ = openMicrophoneSource(microphone_, error);
  if (!source_) return error;
  MediaFileWriterSettings settings;
  settings.path = path;
  settings.container = "ipod";
  settings.audioCodec = "alac";
  settings.sampleRate = kSampleRate;
  settings.channels = kChannels;
  writer_ = createMediaFileWriter(settings, error);
  if (!writer_) {
    source_.reset();
    return error ? error : Error::file("Incorrect path for new audio file");
  }
  path_ = path;
  paused_ = false;
  stopping_ = false;
  stopError_.reset();
  thread_ = std::thread([this] { captureLoop(); });
  return std::nullopt;
}

void AudioRecorderManager::captureLoop() {
  setCurrentThreadName("com.nembra.audioRecorder.capture");
  MediaSourceItem item;
  OptionalError error;
  int64_t sinceLevel = 0;
  float loudest = -160.0f;
  const int64_t levelEvery =
      std::max<int64_t>(1, static_cast<int64_t>(meteringInterval_ * kSampleRate));
  while (!stopping_.load()) {
    if (!source_->read(item, error)) {
      if (stopping_.load()) break;
      if (!error) error = Error::media("the microphone stopped delivering sound");
      break;
    }
    auto* raw = std::get_if<RawMediaFrame>(&item);
    if (!raw || raw->kind() != RawMediaFrame::Kind::Audio) continue;
    // Paused: the microphone keeps running and its sound is let go.
    if (paused_.load()) continue;
    error = writer_->appendAudio(*raw);
    if (error) break;
    loudest = std::max(loudest, writer_->lastAudioLevel());
    sinceLevel += raw->sampleCount();
    if (sinceLevel >= levelEvery) {
      mainQueue_.async([this, alive = alive_, loudest] {
        if (*alive && onLevel) onLevel(loudest);
      });
      sinceLevel = 0;
      loudest = -160.0f;
    }
  }
  if (error && !stopping_.load()) {
    mainQueue_.async([this, alive = alive_, failure = *error] {
      if (*alive && onFailure) onFailure(failure);
    });
  }
}

void AudioRecorderManager::pause() { paused_ = true; }
void AudioRecorderManager::resume() { paused_ = false; }

OptionalError AudioRecorderManager::stop() {
  if (!isRecording()) return stopError_;
  stopping_ = true;
  source_->interrupt();
  thread_.join();
  source_.reset();
  stopError_ = writer_->finish();
  return stopError_;
}

double AudioRecorderManager::recordedSeconds() const {
  return writer_ ? static_cast<double>(writer_->audioSamplesWritten()) / kSampleRate : 0.0;
}

void AudioRecorderManager::deleteRecording() {
  if (isRecording()) stop();
  player_.reset();
  writer_.reset();
  if (!path_.empty()) {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  path_.clear();
}

OptionalError AudioRecorderManager::play() {
  if (path_.empty() || isRecording()) return Error::invalidArgument("no finished take to play");
  if (!player_) {
    observer_ = std::make_shared<PlaybackObserver>(*this);
    MediaPlayerEngineOptions options;
    options.audioOutput = makeAudioOutput();
    options.postCallback = callbacksOn(mainQueue_);
    options.observer = observer_;
    player_ = makeMediaPlayerEngine(std::move(options));
    player_->setItems({MediaPlayerItem::file(path_)});
  }
  player_->play();
  return std::nullopt;
}

void AudioRecorderManager::pausePlaying() {
  if (player_) player_->pause();
}

void AudioRecorderManager::setCurrentTime(double seconds) {
  if (player_) player_->seek(seconds);
}

double AudioRecorderManager::currentTime() const { return player_ ? player_->currentTime() : 0.0; }

}  // namespace nembra
