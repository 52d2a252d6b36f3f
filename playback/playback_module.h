// The playback module's entry into the Nembra object: installPlaybackScreens() makes the
// façade's play* and startAudioPlayer operations present this module's screens.
//
// Threading: install at start-up; presenting runs on the main queue.
#pragma once

#include <functional>
#include <string>

#include "api/playback_screens.h"
#include "nembra/error.h"
#include "playback/audio_playback_engine.h"

namespace nembra {

struct PlaybackModuleOptions {
  // False: players open no sound device (tests, machines without one); the pictures then keep
  // the system clock's time.
  bool withSound = true;
  // The audio players' engine; null: AudioPlaybackEngine::sharedInstance.
  AudioPlaybackEngine* audioEngine = nullptr;
  // Told when a player's content ends (no error) or fails; the screen is dismissed either way.
  std::function<void(const std::string& videoToken, const OptionalError& error)> onFinished;
};

class PlaybackModule final : public PlaybackScreens {
 public:
  explicit PlaybackModule(PlaybackModuleOptions options) : options_(std::move(options)) {}

  void playVideos(Nembra& application, ScreenPresenter& presenter,
                  const std::vector<std::string>& tokens) override;
  void playFromUris(Nembra& application, ScreenPresenter& presenter,
                    const std::vector<std::string>& uris) override;
  void startAudioPlayer(Nembra& application, ScreenPresenter& presenter,
                        const std::vector<std::string>& paths) override;

 private:
  const PlaybackModuleOptions options_;
};

// Installs PlaybackModule as the Nembra objects' playback module.
void installPlaybackScreens(PlaybackModuleOptions options = {});

}  // namespace nembra
