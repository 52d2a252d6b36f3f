// AudioPlaybackEngine over the media plug-in's player engine, with no pictures. It owns its
// NowPlayingPublisher; the desktop's commands come back through a weak reference, on the main
// queue.
//
// Threading: main queue only, end() included (or the thread destroying the main queue, once
// nothing else runs there).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/media/media_player_engine.h"
#include "playback/audio_playback_engine.h"

namespace nembra {

class MainQueue;
class NembraURLAsset;

class MediaAudioPlaybackEngine final
    : public AudioPlaybackEngine,
      public MediaPlayerObserver,
      public std::enable_shared_from_this<MediaAudioPlaybackEngine> {
 public:
  // |makeAudioOutput| null: no sound device (the engine keeps the system clock's time).
  MediaAudioPlaybackEngine(MainQueue& mainQueue,
                           std::function<std::unique_ptr<AudioOutput>()> makeAudioOutput);
  ~MediaAudioPlaybackEngine() override;

  // Publishes through |publisher| (whose commands are posted to the main queue) from now on.
  void setPublisher(std::unique_ptr<NowPlayingPublisher> publisher);
  // Stops for good: the player engine and the publisher are closed, their threads joined, and
  // later calls do nothing (completions are dropped). Nothing is posted to the main queue
  // after this returns.
  void end();
  bool ended() const { return ended_; }

  void playPauseMediaFileWithAudioUrl(const std::string& url, const NowPlayingInfo& springboardInfo,
                                      double startTime, std::function<void()> completion) override;
  bool isPlaying() const override;
  double currentTimeInSeconds() const override;
  double durationInSeconds() const override;
  void seekPlayerToTimeWithValue(double seconds, std::function<void()> completion) override;
  void skipDirectionWithSkipDirection(int direction, double timeInterval, double offset) override;
  void addListener(std::weak_ptr<AudioPlaybackListener> listener) override;
  void removeListener(const AudioPlaybackListener* listener) override;

  void playerStatusChanged(MediaPlayerStatus status, const OptionalError& error) override;
  void playerTimeControlStatusChanged(MediaPlayerTimeControlStatus status) override;
  void playerItemDidPlayToEnd(size_t index) override;

 private:
  MediaPlayerEngine& engine();
  void handleCommand(NowPlayingCommand command);
  void publishPlaying();
  template <typename Call>
  void notify(Call call);

  MainQueue& mainQueue_;
  std::function<std::unique_ptr<AudioOutput>()> makeAudioOutput_;
  std::unique_ptr<MediaPlayerEngine> engine_;
  std::shared_ptr<NembraURLAsset> asset_;
  std::string currentUrl_;
  std::vector<std::function<void()>> whenReady_;
  std::vector<std::weak_ptr<AudioPlaybackListener>> listeners_;
  NowPlayingInfo nowPlaying_;
  std::unique_ptr<NowPlayingPublisher> publisher_;
  bool ended_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
