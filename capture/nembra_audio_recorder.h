// The audio recording screen: record from the microphone (pausing when the recorder
// configuration allows it), listen to the take, record again or upload it as an audio.
//
// States, with the status text and the main button's image each shows:
//   0 Ready            ""                  audio-record-start-black
//   1 Recording        "Recording"         audio-record-stop-black (pause:
//   audio-record-pause-black) 2 Recording paused "Recording Paused"  unchanged (pause:
//   audio-record-resume-black) 3 Recorded         ""                  play-black 4 Playing
//   "Playing"           pause-black 5 Playback paused  ""                  play-black
//
//   Ready -record-> Recording <-pause/resume-> Recording paused
//   Recording / Recording paused -record-> Recorded <-play/pause/end-> Playing / Playback paused
//   any take -record again-> Ready
//
// Threading: main queue only; the recorder delegate is called there.
#pragma once

#include <memory>
#include <string>

#include "capture/audio_visualization.h"
#include "capture/chronometer.h"
#include "capture/view_model.h"
#include "platform/ui/screen.h"

namespace nembra {

class Nembra;
class Timer;

class NembraAudioRecorder final : public Screen {
 public:
  enum State {
    kReady = 0,
    kRecording = 1,
    kRecordingPaused = 2,
    kRecorded = 3,
    kPlaying = 4,
    kPlaybackPaused = 5,
  };

  // initWithNembraApplication:. |application| must outlive the screen.
  explicit NembraAudioRecorder(Nembra& application);
  ~NembraAudioRecorder() override;

  std::string name() const override { return "audio-recorder"; }

  // The microphone to record from (openMicrophoneSource's names) and the folder for takes.
  void setMicrophone(std::string device) { viewModel_.setMicrophone(std::move(device)); }
  void setRecordingDirectory(std::string directory) {
    viewModel_.setRecordingDirectory(std::move(directory));
  }

  // Screen actions.
  void onRecord();
  void onPauseOrResume();
  void onRerecord();
  void onUpload();
  void onClose();
  void timeChanged(double sliderValue);

  int currentState() const { return currentState_; }
  const ViewModel& viewModel() const { return viewModel_; }

  // Whole seconds as "%02d:%02d:%02d" (hours, minutes, seconds).
  static std::string getTimeString(double seconds);

 private:
  void viewDidLoad() override;
  void buttonPressed(const std::string& name) override;
  void sliderMoved(const std::string& name, double value) override;

  void setCurrentState(int state);
  void stopRecording();
  void stopTimer();
  void updateCurrentTimeText();
  AudioVisualization::Mode getAudioVisualizationMode() const;
  void chronometerTicked(double elapsed);
  void playTimerTicked();
  void showWaveform();
  void showFailure(const Error& error);

  Nembra& application_;
  int currentState_ = kReady;
  ViewModel viewModel_;
  std::unique_ptr<Chronometer> chronometer_;
  std::unique_ptr<Timer> playTimer_;
  AudioVisualization audioVisualizationView_;
  double currentTime_ = 0;
  double duration_ = 0;
  int64_t lastReportedSecond_ = -1;
  // Posted callbacks check it: the screen may be gone when they run.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
