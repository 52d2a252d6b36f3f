// Records the microphone into an Apple Lossless .m4a (2 channels, 44100 Hz) and plays a take
// back. The microphone keeps running through a pause and its blocks are dropped, so the file
// resumes exactly where it paused: one continuous take, no gap and no silence inserted.
//
// Threading: every member on the main queue. The capture runs on a thread of its own,
// "com.nembra.audioRecorder.capture"; onLevel, onFailure and onPlaybackFinished arrive on the
// main queue.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "nembra/error.h"
#include "nembra/task_queue.h"
#include "platform/media/media_file_writer.h"
#include "platform/media/media_player_engine.h"
#include "platform/media/media_source.h"

namespace nembra {

class AudioRecorderManager {
 public:
  static constexpr int kSampleRate = 44100;
  static constexpr int kChannels = 2;

  explicit AudioRecorderManager(TaskQueue& mainQueue);
  ~AudioRecorderManager();

  AudioRecorderManager(const AudioRecorderManager&) = delete;
  AudioRecorderManager& operator=(const AudioRecorderManager&) = delete;

  // The microphone (see openMicrophoneSource): "" the default one, "lavfi" the virtual tone.
  void setMicrophone(std::string device) { microphone_ = std::move(device); }
  // How often onLevel is told, in seconds of sound.
  void setMeteringInterval(double seconds) { meteringInterval_ = seconds; }

  // Starts a take in |path|. Fails with "Incorrect path for new audio file" when |path| is empty
  // or its folder is missing, or with the device's error when there is no microphone.
  OptionalError record(const std::string& path);
  void pause();
  void resume();
  // Ends the take and finishes the file; returns the writer's error (a full disk).
  OptionalError stop();
  bool isRecording() const { return thread_.joinable(); }
  bool isPaused() const { return paused_.load(); }
  // Seconds of sound in the take so far (pauses excluded).
  double recordedSeconds() const;
  // Stops any take and playback and deletes the file.
  void deleteRecording();
  const std::string& path() const { return path_; }

  // Loudness of the sound just recorded, in dBFS.
  std::function<void(float decibels)> onLevel;
  // The microphone or the file failed while recording; the take ends there.
  std::function<void(const Error& error)> onFailure;

  // Playback of the finished take through the player engine and the audio output.
  OptionalError play();
  void pausePlaying();
  void setCurrentTime(double seconds);
  double currentTime() const;
  std::function<void()> onPlaybackFinished;

 private:
  class PlaybackObserver;
  void captureLoop();

  TaskQueue& mainQueue_;
  std::string microphone_;
  double meteringInterval_ = 0.05;
  std::string path_;
  std::unique_ptr<MediaSource> source_;
  std::unique_ptr<MediaFileWriter> writer_;
  std::thread thread_;
  std::atomic<bool> paused_{false};
  std::atomic<bool> stopping_{false};
  OptionalError stopError_;
  std::unique_ptr<MediaPlayerEngine> player_;
  std::shared_ptr<PlaybackObserver> observer_;
  // Posted callbacks check it: the manager may be gone when they run.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
