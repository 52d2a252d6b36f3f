#include "playback/media_audio_playback_engine.h"

#include <algorithm>
#include <filesystem>
#include <mutex>

#include "nembra/main_queue.h"
#include "platform/audio/audio_output.h"
#include "platform/dispatch/queue_ending.h"
#include "platform/system/mpris_now_playing_publisher.h"
#include "playback/nembra_url_asset.h"

namespace nembra {

namespace {

struct Shared {
  std::mutex mutex;
  std::shared_ptr<MediaAudioPlaybackEngine> engine;  // the one bound to a living queue
  // Engines whose queue has gone: ended, but screens may still hold a reference to them.
  std::vector<std::shared_ptr<MediaAudioPlaybackEngine>> retired;
};

Shared& shared() {
  // Never destroyed: the process's main queue may be a static that ends after this file's.
  static Shared* instance = new Shared;
  return *instance;
}

}  // namespace

NowPlayingInfo AudioPlaybackEngine::springboardDictionaryWithTitle(
    const std::string& title, const std::string& artist, double duration,
    const std::string& listScreenTitle, const std::string& imagePath) {
  NowPlayingInfo info;
  info.title = title;
  info.artist = artist;
  info.durationSeconds = duration;
  info.listTitle = listScreenTitle;
  info.iconPath = imagePath;
  return info;
}

AudioPlaybackEngine& AudioPlaybackEngine::sharedInstance(MainQueue& mainQueue) {
  Shared& state = shared();
  std::lock_guard lock(state.mutex);
  if (state.engine) return *state.engine;
  auto engine =
      std::make_shared<MediaAudioPlaybackEngine>(mainQueue, [] { return makeAudioOutput(); });
  // The no-op publisher when there is no session bus.
  engine->setPublisher(MprisNowPlayingPublisher::make(mainQueue));
  state.engine = engine;
  QueueEnding::add(mainQueue, [engine] {
    engine->end();
    Shared& state = shared();
    std::lock_guard lock(state.mutex);
    if (state.engine == engine) state.engine.reset();
    state.retired.push_back(engine);
  });
  return *engine;
}

MediaAudioPlaybackEngine::MediaAudioPlaybackEngine(
    MainQueue& mainQueue, std::function<std::unique_ptr<AudioOutput>()> makeAudioOutput)
    : mainQueue_(mainQueue), makeAudioOutput_(std::move(makeAudioOutput)) {}

MediaAudioPlaybackEngine::~MediaAudioPlaybackEngine() { end(); }

void MediaAudioPlaybackEngine::setPublisher(std::unique_ptr<NowPlayingPublisher> publisher) {
  if (publisher_) publisher_->setCommandHandler(nullptr);
  publisher_ = std::move(publisher);
  if (!publisher_ || ended_) return;
  std::weak_ptr<MediaAudioPlaybackEngine> weak = weak_from_this();
  publisher_->setCommandHandler([weak](NowPlayingCommand command) {
    if (auto self = weak.lock()) self->handleCommand(command);
  });
}

void MediaAudioPlaybackEngine::end() {
  if (ended_) return;
  ended_ = true;
  *alive_ = false;
  if (engine_) engine_->close();
  if (publisher_) {
    publisher_->setCommandHandler(nullptr);
    publisher_->clear();
  }
  // Joins the bus thread, the last one that could post to the main queue.
  publisher_.reset();
  whenReady_.clear();
}

MediaPlayerEngine& MediaAudioPlaybackEngine::engine() {
  if (!engine_) {
    MediaPlayerEngineOptions options;
    if (makeAudioOutput_) options.audioOutput = makeAudioOutput_();
    MainQueue* main = &mainQueue_;
    options.postCallback = [main, alive = alive_](Task call) {
      main->async([alive, call = std::move(call)] {
        if (*alive) call();
      });
    };
    options.observer = weak_from_this();
    engine_ = makeMediaPlayerEngine(std::move(options));
  }
  return *engine_;
}

void MediaAudioPlaybackEngine::playPauseMediaFileWithAudioUrl(const std::string& url,
                                                              const NowPlayingInfo& springboardInfo,
                                                              double startTime,
                                                              std::function<void()> completion) {
  if (ended_) return;
  if (url != currentUrl_) {
    currentUrl_ = url;
    NembraAssetLoaderDelegate::Options options;
    options.storeParentDirectory =
        (std::filesystem::temp_directory_path() / "nembra-audio").string();
    OptionalError error;
    asset_ = NembraURLAsset::initWithURL(url, options, error);
    if (!asset_) {
      if (completion) mainQueue_.async(std::move(completion));
      return;
    }
    engine().setItems({asset_->playerItem()});
    if (startTime > 0) engine().seek(startTime);
    engine().play();
    nowPlaying_ = springboardInfo;
    nowPlaying_.url = url;
    if (publisher_) publisher_->publish(nowPlaying_);
    if (completion) whenReady_.push_back(std::move(completion));
    return;
  }
  if (isPlaying()) {
    engine().pause();
  } else {
    engine().play();
  }
  publishPlaying();
  if (completion) mainQueue_.async(std::move(completion));
}

void MediaAudioPlaybackEngine::publishPlaying() {
  if (!publisher_) return;
  publisher_->setPosition(currentTimeInSeconds());
  publisher_->setPlaying(isPlaying());
}

void MediaAudioPlaybackEngine::handleCommand(NowPlayingCommand command) {
  if (ended_ || currentUrl_.empty() || !engine_) return;
  switch (command) {
    case NowPlayingCommand::Play:
      engine_->play();
      break;
    case NowPlayingCommand::Pause:
    case NowPlayingCommand::Stop:
      engine_->pause();
      break;
    case NowPlayingCommand::PlayPause:
      if (isPlaying()) {
        engine_->pause();
      } else {
        engine_->play();
      }
      break;
    case NowPlayingCommand::Next:
    case NowPlayingCommand::Previous:
      // The list is the audio player's, not the engine's: nothing to move to here.
      return;
  }
  publishPlaying();
  notify([](AudioPlaybackListener& l) { l.playbackChangedByDesktop(); });
}

bool MediaAudioPlaybackEngine::isPlaying() const {
  return !ended_ && engine_ && engine_->rate() > 0;
}

double MediaAudioPlaybackEngine::currentTimeInSeconds() const {
  return engine_ ? engine_->currentTime() : 0;
}

double MediaAudioPlaybackEngine::durationInSeconds() const {
  return engine_ ? engine_->duration() : 0;
}

void MediaAudioPlaybackEngine::seekPlayerToTimeWithValue(double seconds,
                                                         std::function<void()> completion) {
  if (ended_) return;
  engine().seek(seconds);
  if (publisher_) publisher_->setPosition(seconds);
  if (completion) mainQueue_.async(std::move(completion));
}

void MediaAudioPlaybackEngine::skipDirectionWithSkipDirection(int direction, double timeInterval,
                                                              double offset) {
  double target = direction == 0 ? offset - timeInterval : offset + timeInterval;
  target = std::clamp(target, 0.0, std::max(0.0, durationInSeconds()));
  seekPlayerToTimeWithValue(target, nullptr);
}

void MediaAudioPlaybackEngine::addListener(std::weak_ptr<AudioPlaybackListener> listener) {
  listeners_.push_back(std::move(listener));
}

void MediaAudioPlaybackEngine::removeListener(const AudioPlaybackListener* listener) {
  std::erase_if(listeners_, [listener](const auto& weak) {
    auto strong = weak.lock();
    return !strong || strong.get() == listener;
  });
}

template <typename Call>
void MediaAudioPlaybackEngine::notify(Call call) {
  auto listeners = listeners_;
  for (const auto& weak : listeners) {
    if (auto listener = weak.lock()) call(*listener);
  }
}

void MediaAudioPlaybackEngine::playerStatusChanged(MediaPlayerStatus status, const OptionalError&) {
  if (status == MediaPlayerStatus::Unknown) return;
  // A failed item completes too: the player's screen leaves its loading state either way.
  auto ready = std::move(whenReady_);
  whenReady_.clear();
  for (auto& completion : ready) completion();
  if (status == MediaPlayerStatus::ReadyToPlay) {
    // The duration is known now: the desktop shows the item's length.
    if (publisher_ && nowPlaying_.durationSeconds <= 0 && durationInSeconds() > 0) {
      nowPlaying_.durationSeconds = durationInSeconds();
      publisher_->publish(nowPlaying_);
      publishPlaying();
    }
    notify([](AudioPlaybackListener& l) { l.episodeLoadedNotification(kLoadStateLoaded); });
  }
}

void MediaAudioPlaybackEngine::playerTimeControlStatusChanged(MediaPlayerTimeControlStatus status) {
  if (publisher_) publisher_->setPlaying(status == MediaPlayerTimeControlStatus::Playing);
}

void MediaAudioPlaybackEngine::playerItemDidPlayToEnd(size_t) {
  notify([](AudioPlaybackListener& l) { l.playerDidReachEndNotification(); });
}

}  // namespace nembra
