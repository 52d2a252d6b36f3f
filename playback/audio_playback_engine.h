// The audio engine the audio player drives: one player engine with sound only, shared by the
// process (sharedInstance), that toggles play/pause of a URL, seeks and skips, and publishes
// what it plays through a NowPlayingPublisher. Listeners hear when an item has loaded and when
// it reached its end.
//
// Threading: main queue only; completions and listener calls run on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/media/now_playing_publisher.h"

namespace nembra {

class MainQueue;

class AudioPlaybackListener {
 public:
  virtual ~AudioPlaybackListener() = default;
  // The media loaded, with its load state (100: loaded).
  virtual void episodeLoadedNotification(int loadState) = 0;
  virtual void playerDidReachEndNotification() = 0;
  // The desktop (its media keys or widgets) played or paused the item.
  virtual void playbackChangedByDesktop() {}
};

class AudioPlaybackEngine {
 public:
  static constexpr int kLoadStateLoaded = 100;

  virtual ~AudioPlaybackEngine() = default;

  // Toggles play/pause of |url|; a URL other than the current one replaces it and starts at
  // |startTime|. |completion| runs once the toggle took effect (a new URL: once it is ready).
  virtual void playPauseMediaFileWithAudioUrl(const std::string& url,
                                              const NowPlayingInfo& springboardInfo,
                                              double startTime,
                                              std::function<void()> completion) = 0;
  virtual bool isPlaying() const = 0;
  virtual double currentTimeInSeconds() const = 0;
  virtual double durationInSeconds() const = 0;
  virtual void seekPlayerToTimeWithValue(double seconds, std::function<void()> completion) = 0;
  // |direction| 0 backward, 1 forward: |timeInterval| seconds from |offset|.
  virtual void skipDirectionWithSkipDirection(int direction, double timeInterval,
                                              double offset) = 0;
  virtual void addListener(std::weak_ptr<AudioPlaybackListener> listener) = 0;
  virtual void removeListener(const AudioPlaybackListener* listener) = 0;

  // The now-playing information of an item.
  static NowPlayingInfo springboardDictionaryWithTitle(const std::string& title,
                                                       const std::string& artist, double duration,
                                                       const std::string& listScreenTitle,
                                                       const std::string& imagePath);

  // The process's engine over the player engine, its calls on |mainQueue| (the first call
  // decides while that queue lives). When a session bus is there, what it plays is published
  // over MPRIS and the desktop's media keys reach it. When |mainQueue| is destroyed the engine
  // stops for good (no thread of it posts there again) and stays, inert, for whoever still
  // holds it; the next call makes a new one.
  static AudioPlaybackEngine& sharedInstance(MainQueue& mainQueue);
};

}  // namespace nembra
