#include "playback/vast_ads_manager.h"

#include <filesystem>

namespace nembra {

VastAdsManager::VastAdsManager(TaskQueue& mainQueue, ResolvedVastAd ad, std::string clipPath,
                               std::shared_ptr<VastTracker> tracker, AdDisplayContainer container)
    : mainQueue_(mainQueue),
      ad_(std::move(ad)),
      clipPath_(std::move(clipPath)),
      tracker_(std::move(tracker)),
      container_(std::move(container)) {}

VastAdsManager::~VastAdsManager() {
  ticker_.reset();
  if (engine_) engine_->close();
  std::error_code ignored;
  std::filesystem::remove(clipPath_, ignored);
}

void VastAdsManager::setDelegate(std::weak_ptr<AdsManagerDelegate> delegate) {
  delegate_ = std::move(delegate);
}

void VastAdsManager::initialize(const AdsRenderingSettings& settings) {
  if (engine_ || finished_) return;
  if (settings.maxAdDuration > 0 && ad_.durationSeconds > settings.maxAdDuration) {
    return fail(VastErrorCode::GeneralLinear, "the ad is longer than the rendering settings allow");
  }
  MediaPlayerEngineOptions options;
  options.surface = container_.surface;
  if (container_.makeAudioOutput) options.audioOutput = container_.makeAudioOutput();
  options.postCallback = callbacksOn(mainQueue_);
  options.observer = std::static_pointer_cast<MediaPlayerObserver>(shared_from_this());
  engine_ = makeMediaPlayerEngine(std::move(options));
  engine_->setItems({MediaPlayerItem::file(clipPath_)});
}

void VastAdsManager::start() {
  if (!loaded_ || started_ || finished_) return;
  started_ = true;
  if (auto delegate = delegate_.lock()) delegate->adsManagerDidRequestContentPause(*this);
  engine_->play();
  fire(VastEvent::Impression, AdEventType::Impression);
  tick();
  std::weak_ptr<VastAdsManager> weak = weak_from_this();
  ticker_ = Timer::repeating(mainQueue_, std::chrono::milliseconds(100), [weak] {
    if (auto self = weak.lock()) self->tick();
  });
}

void VastAdsManager::destroy() {
  finished_ = true;
  ticker_.reset();
  if (engine_) engine_->close();
}

bool VastAdsManager::canSkip() const {
  return started_ && !finished_ && ad_.skipOffsetSeconds && engine_ &&
         engine_->currentTime() >= *ad_.skipOffsetSeconds;
}

bool VastAdsManager::skip() {
  if (!canSkip()) return false;
  fire(VastEvent::Skip, AdEventType::Skipped);
  finish();
  return true;
}

void VastAdsManager::playerStatusChanged(MediaPlayerStatus status, const OptionalError& error) {
  if (finished_) return;
  if (status == MediaPlayerStatus::ReadyToPlay && !loaded_) {
    loaded_ = true;
    send(AdEventType::Loaded);
  } else if (status == MediaPlayerStatus::Failed) {
    fail(VastErrorCode::MediaFileDisplay,
         "the ad's media file cannot be played: " + (error ? error->message : "unknown error"));
  }
}

void VastAdsManager::playerItemDidPlayToEnd(size_t) {
  if (finished_ || !started_) return;
  // Quartiles the last tick did not reach are passed now.
  double duration = ad_.durationSeconds > 0 ? ad_.durationSeconds : engine_->duration();
  advance(duration, duration);
  fire(VastEvent::Complete, AdEventType::Complete);
  finish();
}

void VastAdsManager::playerItemDidFail(size_t, const Error& error) {
  if (finished_) return;
  fail(VastErrorCode::MediaFileDisplay, "the ad's media file broke: " + error.message);
}

void VastAdsManager::tick() {
  if (finished_ || !engine_) return;
  // The document's duration rules the quartiles; the file's own only when the document has none.
  double duration = ad_.durationSeconds > 0 ? ad_.durationSeconds : engine_->duration();
  advance(engine_->currentTime(), duration);
}

void VastAdsManager::advance(double position, double duration) {
  fire(VastEvent::Start, AdEventType::Started);
  if (duration <= 0) return;
  if (position >= duration * 0.25) fire(VastEvent::FirstQuartile, AdEventType::FirstQuartile);
  if (position >= duration * 0.50) fire(VastEvent::Midpoint, AdEventType::Midpoint);
  if (position >= duration * 0.75) fire(VastEvent::ThirdQuartile, AdEventType::ThirdQuartile);
}

void VastAdsManager::fire(VastEvent vastEvent, AdEventType adEvent) {
  if (tracker_->fire(vastEvent)) send(adEvent);
}

void VastAdsManager::send(AdEventType type, const std::string& message) {
  if (auto delegate = delegate_.lock()) {
    delegate->adsManagerDidReceiveAdEvent(*this, AdEvent{type, message});
  }
}

void VastAdsManager::fail(VastErrorCode code, const std::string& message) {
  if (finished_) return;
  tracker_->fireError(code);
  destroy();
  if (auto delegate = delegate_.lock()) {
    delegate->adsManagerDidReceiveAdError(*this,
                                          Error{ErrorKind::Media, message, static_cast<int>(code)});
  }
}

void VastAdsManager::finish() {
  if (finished_) return;
  destroy();
  if (container_.surface) container_.surface->clear();
  send(AdEventType::AllAdsCompleted);
  if (auto delegate = delegate_.lock()) delegate->adsManagerDidRequestContentResume(*this);
}

}  // namespace nembra
