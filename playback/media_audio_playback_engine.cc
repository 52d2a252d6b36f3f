#include "playback/media_audio_playback_engine.h"

#include <algorithm>
#include <filesystem>
#include <mutex>

#include "nembra/main_queue.h"
#include "playback/nembra_url_asset.h"

namespace nembra {

namespace {

std::mutex sharedMutex;
std::shared_ptr<MediaAudioPlaybackEngine> sharedEngine;  // guarded by sharedMutex
std::shared_ptr<NowPlayingPublisher> sharedPublisher;    // guarded by sharedMutex

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
  std::lock_guard lock(sharedMutex);
  if (!sharedEngine) {
    // Kept for the life of the process, as the one audio session is.
    sharedEngine =
        std::make_shared<MediaAudioPlaybackEngine>(mainQueue, [] { return makeAudioOutput(); });
    new std::shared_ptr<MediaAudioPlaybackEngine>(sharedEngine);
  }
  sharedEngine->setPublisher(sharedPublisher);
  return *sharedEngine;
}

void AudioPlaybackEngine::setNowPlayingPublisher(std::shared_ptr<NowPlayingPublisher> publisher) {
  std::lock_guard lock(sharedMutex);
  sharedPublisher = publisher;
  if (sharedEngine) sharedEngine->setPublisher(publisher);
}

MediaAudioPlaybackEngine::MediaAudioPlaybackEngine(
    MainQueue& mainQueue, std::function<std::unique_ptr<AudioOutput>()> makeAudioOutput)
    : mainQueue_(mainQueue), makeAudioOutput_(std::move(makeAudioOutput)) {}

MediaAudioPlaybackEngine::~MediaAudioPlaybackEngine() {
  *alive_ = false;
  if (engine_) engine_->close();
  if (publisher_) publisher_->clear();
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
    NowPlayingInfo info = springboardInfo;
    info.url = url;
    if (publisher_) publisher_->publish(info);
    if (completion) whenReady_.push_back(std::move(completion));
    return;
  }
  if (isPlaying()) {
    engine().pause();
  } else {
    engine().play();
  }
  if (publisher_) publisher_->setPlaying(isPlaying());
  if (completion) mainQueue_.async(std::move(completion));
}

bool MediaAudioPlaybackEngine::isPlaying() const { return engine_ && engine_->rate() > 0; }

double MediaAudioPlaybackEngine::currentTimeInSeconds() const {
  return engine_ ? engine_->currentTime() : 0;
}

double MediaAudioPlaybackEngine::durationInSeconds() const {
  return engine_ ? engine_->duration() : 0;
}

void MediaAudioPlaybackEngine::seekPlayerToTimeWithValue(double seconds,
                                                         std::function<void()> completion) {
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
