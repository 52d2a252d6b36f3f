// The audio recorder screen's model of the sound side: where the take lives, its metering
// levels, and recording and playback through the AudioRecorderManager.
//
// Threading: main queue only; its callbacks arrive there.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "capture/audio_recorder_manager.h"
#include "nembra/error.h"
#include "nembra/task_queue.h"

namespace nembra {

class ViewModel {
 public:
  explicit ViewModel(TaskQueue& mainQueue);

  // The take's file, once recording has started.
  std::optional<std::string> audioFilePathLocal;
  // The levels kept for review (0..1, scaled to the waveform's width) after a take.
  std::optional<std::vector<float>> meteringLevels;
  // Each metering level while recording, 0 (silence) to 1 (full scale).
  std::function<void(float level)> audioMeteringLevelUpdate;
  // Playback reached the end of the take.
  std::function<void()> audioDidFinish;
  // A take failed while recording (the microphone went away, the disk is full).
  std::function<void(const Error& error)> audioDidFail;
  double audioVisualizationTimeInterval = 0.05;

  // Where takes are written ("" until set: the temporary directory) and from which microphone.
  void setRecordingDirectory(std::string directory) { directory_ = std::move(directory); }
  void setMicrophone(std::string device) { manager_.setMicrophone(std::move(device)); }

  // Whether this process may use a microphone (a Linux process needs no grant: this tells
  // whether one can be opened at all).
  void askAudioRecordingPermission(const std::function<void(bool granted)>& completion);
  // Starts a take in a new file; |completion| gets the file's path or the error.
  void startRecording(const std::function<void(const std::optional<std::string>& path,
                                               const OptionalError& error)>& completion);
  OptionalError stopRecording();
  void pauseRecording() { manager_.pause(); }
  void resumeRecording() { manager_.resume(); }
  // Ends any take or playback and deletes the file.
  void resetRecording();
  // Seconds of sound in the take so far.
  double recordedSeconds() const { return manager_.recordedSeconds(); }

  // Plays the take from where it stands; returns its duration in seconds.
  double startPlaying();
  void pausePlaying() { manager_.pausePlaying(); }
  void setCurrentTime(double seconds) { manager_.setCurrentTime(seconds); }
  double currentTime() const { return manager_.currentTime(); }

  // dBFS to the 0..1 level the waveform draws: -50 dB and below is silence.
  static float normalizedLevel(float decibels);

 private:
  std::string newTakePath() const;

  AudioRecorderManager manager_;
  std::string directory_;
  double duration_ = 0;
};

}  // namespace nembra
