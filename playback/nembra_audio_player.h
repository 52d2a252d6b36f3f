// The full-screen audio player: plays a list of audio URLs one after another with play/pause,
// previous, next, rewind, forward and a time slider, reports to the application's player
// delegate, and drives the shared audio engine. A list of two or more repeats; a single item
// closes the player when it ends.
//
// View: labels "status", "duration", "currentTime", "totalTime" and "loading" (the spinner:
// "…" while loading, "" otherwise); slider "time"; buttons "before", "rewind", "play",
// "forward", "next", "close". The play button's image is "play-black" or "pause-black".
//
// Threading: main queue only.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/dispatch/timer.h"
#include "platform/ui/screen.h"
#include "playback/audio_playback_engine.h"

namespace nembra {

class Nembra;

class NembraAudioPlayer final : public Screen,
                                public AudioPlaybackListener,
                                public std::enable_shared_from_this<NembraAudioPlayer> {
 public:
  // |engine| must outlive the player (normally AudioPlaybackEngine::sharedInstance).
  NembraAudioPlayer(Nembra& application, std::vector<std::string> paths,
                    AudioPlaybackEngine& engine);
  ~NembraAudioPlayer() override;

  std::string name() const override { return "audio-player"; }

  // The buttons' actions.
  void onPlayOrPause();
  void onPlayBeforeItem();
  void onPlayNextItem();
  void onPlayRewind();
  void onPlayForward();
  void onChangeCurrentTime(double value);
  void onClose();
  void close(bool cancelledByUser);

  // The slider timer's work, for |seconds| into the item.
  void updateCurrentTimeLabel(double seconds);

  int32_t currentItemIndex() const { return currentItemIndex_; }
  double seekTimeInterval() const { return seekTimeInterval_; }

  void buttonPressed(const std::string& name) override;
  void sliderMoved(const std::string& name, double value) override;
  void episodeLoadedNotification(int loadState) override;
  void playerDidReachEndNotification() override;
  void playbackChangedByDesktop() override;

 protected:
  void viewDidLoad() override;
  void viewWillDisappear() override;

 private:
  void loadAudio();
  void showLoadingIndicator();
  void hideLoadingIndicator();
  void setupSlider();
  void updatePlayButton();
  void setButtonHidden(const std::string& name, bool hidden);
  bool playButtonHidden() const;

  Nembra& m_nembra;
  const std::vector<std::string> m_audioPaths;
  AudioPlaybackEngine& engine_;
  int32_t currentItemIndex_ = 0;
  double seekTimeInterval_ = 10.0;
  double beforeSeekTime_ = -1;
  std::unique_ptr<Timer> sliderTimer_;
  SliderState slider_;
  std::string playImage_ = "play-black";
  bool playHidden_ = true;
  bool observing_ = false;
};

}  // namespace nembra
