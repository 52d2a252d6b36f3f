#include "playback/nembra_player.h"

#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>

#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/nembra_videos.h"
#include "playback/asset_byte_source.h"

namespace nembra {

namespace fs = std::filesystem;

namespace {

// The content's position for the ads side.
class PlayerPlayhead final : public AdContentPlayhead {
 public:
  explicit PlayerPlayhead(std::weak_ptr<NembraPlayer> player) : player_(std::move(player)) {}
  double currentTime() const override {
    auto player = player_.lock();
    return player ? player->currentTime() : 0;
  }

 private:
  std::weak_ptr<NembraPlayer> player_;
};

std::string uniqueString() {
  std::random_device random;
  char text[40];
  std::snprintf(text, sizeof(text), "%08X-%04X-%04X-%04X-%08X%04X", random(), random() & 0xffff,
                random() & 0xffff, random() & 0xffff, random(), random() & 0xffff);
  return text;
}

std::string rangeDescription(const LoaderRange& range) {
  return "{" + std::to_string(range.location) + ", " + std::to_string(range.length) + "}";
}

bool isRemote(const std::string& entry) {
  return entry.find("http://") != std::string::npos || entry.find("https://") != std::string::npos;
}

}  // namespace

NembraPlayer::NembraPlayer(Nembra& application, std::vector<NembraPlayerItem> items)
    : m_nembra(application), items_(std::move(items)) {
  for (const NembraPlayerItem& item : items_) {
    std::vector<WebVttCue> cues;
    if (!item.textTrackPath.empty()) {
      std::ifstream in(item.textTrackPath);
      std::string text((std::istreambuf_iterator<char>(in)), {});
      cues = WebVtt::parse(text);
    }
    cues_.push_back(std::move(cues));
  }
}

NembraPlayer::~NembraPlayer() {
  *alive_ = false;
  // The loaders may outlive the player on the network thread; from here on they must not post
  // to a main queue that may go with it.
  if (loaderDelegate_) {
    for (const NembraPlayerItem& item : items_) {
      if (item.asset && item.asset->resourceLoaderDelegate()) {
        item.asset->resourceLoaderDelegate()->removeDelegate(*loaderDelegate_);
      }
    }
  }
  if (adsManager_) adsManager_->destroy();
  if (engine_) engine_->close();
}

std::shared_ptr<NembraPlayer> NembraPlayer::make(Nembra& application,
                                                 std::vector<NembraPlayerItem> items) {
  auto player = std::shared_ptr<NembraPlayer>(new NembraPlayer(application, std::move(items)));
  player->muted_ = application.playerConfig().isMuted();

  // The loader calls from the network's callback queue; what it reports is brought to the main
  // queue, except the whole file, which is linked into the cache directory at once (the loader,
  // and its store, may be gone by the time the main queue runs).
  auto delegate = std::make_shared<NembraAssetLoaderDelegatesDelegate>();
  std::weak_ptr<NembraPlayer> weak = player;
  MainQueue* main = &application.mainQueue();
  std::string cacheDirectory = application.playerCacheManager().getCacheDirectoryWithType(VIDEO);
  delegate->didLoadDataForRange = [weak, main](NembraAssetLoaderDelegate&, const LoadedData&,
                                               const LoaderRange& range, const std::string&) {
    main->async([weak, range] {
      if (auto self = weak.lock()) {
        self->m_nembra.log("NembraPlayer: data loaded for range: " + rangeDescription(range));
      }
    });
  };
  delegate->didLoadDataForURL = [weak, main, cacheDirectory](NembraAssetLoaderDelegate&,
                                                             const LoadedData& data,
                                                             const std::string& url) {
    if (NembraURLAsset::isLocal(url)) return;
    auto token = tokenFromVideoUrl(url);
    if (!token) return;
    static std::atomic<int> counter{0};
    std::string incoming = cacheDirectory + "/." + *token + ".incoming-" +
                           std::to_string(::getpid()) + "-" + std::to_string(++counter);
    std::error_code ec;
    fs::create_hard_link(data.path, incoming, ec);
    if (ec) return;
    main->async([weak, incoming, url] {
      if (auto self = weak.lock()) {
        self->wholeFileLoaded(incoming, url);
      } else {
        std::error_code ignored;
        fs::remove(incoming, ignored);
      }
    });
  };
  delegate->didRecieveLoadingErrorWithDataTaskForRequest =
      [weak, main](NembraAssetLoaderDelegate&, const Error& error, std::shared_ptr<HttpTask>,
                   std::shared_ptr<AssetLoadingRequest>) {
        main->async([weak, message = error.message] {
          if (auto self = weak.lock()) {
            self->m_nembra.log("NembraPlayer: loader delegate did receive error: " + message);
          }
        });
      };
  player->loaderDelegate_ = delegate;
  for (const NembraPlayerItem& item : player->items_) {
    if (item.asset && item.asset->resourceLoaderDelegate()) {
      item.asset->resourceLoaderDelegate()->setDelegate(delegate);
    }
  }
  return player;
}

std::optional<NembraPlayerItem> NembraPlayer::itemForUrl(Nembra& application,
                                                         const std::string& url) {
  NembraAssetLoaderDelegate::Options options;
  options.storeParentDirectory = application.playerCacheManager().getCacheDirectoryWithType(VIDEO);
  OptionalError error;
  auto asset = NembraURLAsset::initWithURL(url, options, error);
  if (!asset) {
    application.logError(error->message);
    return std::nullopt;
  }
  return NembraPlayerItem{asset, ""};
}

std::shared_ptr<NembraPlayer> NembraPlayer::initWithNembraApplication(
    Nembra& application, const std::string& videoToken) {
  return initWithNembraApplication(application, videoToken, std::nullopt);
}

std::shared_ptr<NembraPlayer> NembraPlayer::initWithNembraApplication(
    Nembra& application, const std::string& videoToken,
    const std::optional<std::string>& videoUrl) {
  std::string url;
  if (videoUrl) {
    url = *videoUrl;
  } else {
    NembraCacheManager& cache = application.playerCacheManager();
    // What a killed player was loading goes, whether or not this one loads anything.
    SpanStore::removeAbandonedStores(cache.getCacheDirectoryWithType(VIDEO));
    std::string cached = cache.getCacheFilePathWithType(VIDEO, videoToken);
    url = cache.fileExists(cached) ? cached : application.videos().getVideoUrl(videoToken);
  }
  auto player = initWithVideoURL(application, url);
  if (player) player->videoToken_ = videoToken;
  return player;
}

std::shared_ptr<NembraPlayer> NembraPlayer::initWithVideoURL(Nembra& application,
                                                             const std::string& url) {
  auto item = itemForUrl(application, url);
  if (!item) return nullptr;
  auto player = make(application, {*item});
  player->setupAdsLoader();
  return player;
}

std::shared_ptr<NembraPlayer> NembraPlayer::initWithNembraApplication(Nembra& application,
                                                                      NembraPlayerItem playerItem) {
  return make(application, {std::move(playerItem)});
}

std::shared_ptr<NembraPlayer> NembraPlayer::initWithNembraApplication(
    Nembra& application, std::vector<NembraPlayerItem> playerItems) {
  return make(application, std::move(playerItems));
}

std::string NembraPlayer::queryFromParams(const Json& params) {
  std::string query;
  if (!params.is_object()) return query;
  for (const auto& [key, value] : params.items()) {
    query += key + "=" + (value.is_string() ? value.get<std::string>() : value.dump()) + "&";
  }
  return query.empty() ? query : "?" + query;
}

std::optional<std::string> NembraPlayer::tokenFromVideoUrl(const std::string& url) {
  static const std::regex pattern("/videos/([^/]+)/video.mp4$");
  std::smatch match;
  if (!std::regex_search(url, match, pattern)) return std::nullopt;
  return match[1].str();
}

std::string NembraPlayer::renderVTTWithWords(Nembra& application, const Json& words,
                                             const Json& times) {
  std::string path = (fs::temp_directory_path() / (uniqueString() + ".vtt")).string();
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << WebVtt::render(words, times);
  }
  std::ifstream in(path);
  std::string contents((std::istreambuf_iterator<char>(in)), {});
  application.log("NembraPlayer: webvtt file path: " + path + ", contents: " + contents);
  return path;
}

void NembraPlayer::createPlayerWithAdditionalParams(Nembra& application,
                                                    const std::string& videoToken,
                                                    const Json& params, Callback callback) {
  createPlayerWithAdditionalParams(application, videoToken, std::nullopt, params,
                                   std::move(callback));
}

void NembraPlayer::createPlayerWithAdditionalParams(Nembra& application,
                                                    const std::string& videoToken,
                                                    const std::optional<std::string>& videoUrl,
                                                    const Json& params, Callback callback) {
  Nembra* app = &application;
  application.connect().addSessionData(
      params, "", [app, videoToken, videoUrl, callback](const Json& completed) {
        app->mainQueue().async([app, videoToken, videoUrl, callback, completed] {
          std::string url = (videoUrl ? *videoUrl : app->videos().getVideoUrl(videoToken)) +
                            queryFromParams(completed);
          app->uploadingHandler().getOriginalStreamDescriptionForVideoByToken(
              videoToken,
              [app, videoToken, url, callback](const std::optional<Json>& json, const HttpResponse&,
                                               const OptionalError& error) {
                app->mainQueue().async([app, videoToken, url, callback, json, error] {
                  if (error) {
                    app->log("NembraPlayer: original stream description loaded with error: " +
                             error->message + ", " + errorKindName(error->kind));
                  }
                  Json words, times;
                  if (json && json->is_object() && json->contains("audio_transcription") &&
                      (*json)["audio_transcription"].is_object()) {
                    const Json& transcription = (*json)["audio_transcription"];
                    words = transcription.value("words", Json::array());
                    times = transcription.value("times", Json::array());
                  }
                  auto item = itemForUrl(*app, url);
                  if (!item) {
                    callback(nullptr);
                    return;
                  }
                  if (words.is_array() && !words.empty()) {
                    item->textTrackPath = renderVTTWithWords(*app, words, times);
                    app->log("NembraPlayer: player item created with mix composition");
                  } else {
                    app->log("NembraPlayer: player item created with video url");
                  }
                  auto player = initWithNembraApplication(*app, std::move(*item));
                  player->videoToken_ = videoToken;
                  callback(player);
                });
              });
          return NembraConnect::TaskHandle();
        });
        return NembraConnect::TaskHandle();
      });
}

void NembraPlayer::createPlayerWithServerAuthToken(Nembra& application,
                                                   const std::string& videoToken,
                                                   const std::string& authToken,
                                                   Callback callback) {
  createPlayerWithAdditionalParams(application, videoToken, Json{{"server_auth", authToken}},
                                   std::move(callback));
}

void NembraPlayer::createPlayerWithClientAuthToken(Nembra& application,
                                                   const std::string& videoToken,
                                                   const std::string& authToken,
                                                   Callback callback) {
  createPlayerWithAdditionalParams(application, videoToken, Json{{"client_auth", authToken}},
                                   std::move(callback));
}

void NembraPlayer::createPlayersWithAdditionalParams(Nembra& application,
                                                     const VideoTokens& videoTokens, const Json&,
                                                     Callback callback) {
  std::vector<NembraPlayerItem> items;
  for (const std::string& token : videoTokens.tokens) {
    if (auto item = itemForUrl(application, application.videos().getVideoUrl(token))) {
      items.push_back(std::move(*item));
    }
  }
  auto player = initWithNembraApplication(application, std::move(items));
  application.mainQueue().async([callback, player] { callback(player); });
}

void NembraPlayer::createPlayersWithAdditionalParams(Nembra& application,
                                                     const VideoUrls& videoUrls, const Json&,
                                                     Callback callback) {
  std::vector<NembraPlayerItem> items;
  for (const std::string& entry : videoUrls.urls) {
    // Anything that is not an http(s) URL is a local path.
    auto item = itemForUrl(application, isRemote(entry) ? entry : fs::absolute(entry).string());
    if (item) items.push_back(std::move(*item));
  }
  auto player = initWithNembraApplication(application, std::move(items));
  application.mainQueue().async([callback, player] { callback(player); });
}

void NembraPlayer::setOutputs(std::shared_ptr<VideoSurface> surface,
                              std::function<std::unique_ptr<AudioOutput>()> makeAudioOutput) {
  surface_ = std::move(surface);
  makeAudioOutput_ = std::move(makeAudioOutput);
}

MediaPlayerEngine& NembraPlayer::engine() {
  if (!engine_) {
    MediaPlayerEngineOptions options;
    options.surface = surface_;
    if (makeAudioOutput_) options.audioOutput = makeAudioOutput_();
    MainQueue* main = &m_nembra.mainQueue();
    options.postCallback = [main, alive = alive_](Task call) {
      main->async([alive, call = std::move(call)] {
        if (*alive) call();
      });
    };
    options.observer = weak_from_this();
    engine_ = makeMediaPlayerEngine(std::move(options));
    std::vector<MediaPlayerItem> media;
    for (const NembraPlayerItem& item : items_) {
      MediaPlayerItem entry = item.asset->playerItem();
      entry.textTrackPath = item.textTrackPath;
      sources_.push_back(entry.source);
      media.push_back(std::move(entry));
    }
    engine_->setMuted(muted_);
    engine_->setItems(std::move(media));
  }
  return *engine_;
}

void NembraPlayer::play() { engine().play(); }
void NembraPlayer::pause() { engine().pause(); }
void NembraPlayer::seek(double seconds) { engine().seek(seconds); }

void NembraPlayer::setMuted(bool muted) {
  muted_ = muted;
  if (engine_) engine_->setMuted(muted);
}

double NembraPlayer::currentTime() const { return engine_ ? engine_->currentTime() : 0; }
double NembraPlayer::duration() const { return engine_ ? engine_->duration() : 0; }

void NembraPlayer::close() {
  *alive_ = false;
  alive_ = std::make_shared<bool>(false);
  if (engine_) engine_->close();
  // The outputs may belong to the screen that owns this player.
  engine_.reset();
  sources_.clear();
  surface_.reset();
  makeAudioOutput_ = nullptr;
}

std::optional<std::string> NembraPlayer::currentSubtitle() const {
  if (!engine_ || items_.empty()) return std::nullopt;
  size_t index = std::min(engine_->currentItemIndex(), cues_.size() - 1);
  return WebVtt::cueAt(cues_[index], engine_->currentTime());
}

void NembraPlayer::report(const std::string& event, const std::function<void()>& call,
                          double seconds) {
  if (event == beforeEvent_) return;
  beforeEvent_ = event;
  if (eventObserver_) eventObserver_(event, seconds);
  if (call) call();
}

void NembraPlayer::playerStatusChanged(MediaPlayerStatus status, const OptionalError& error) {
  auto delegate = m_nembra.getPlayerDelegate();
  switch (status) {
    case MediaPlayerStatus::Unknown:
      m_nembra.log("NembraPlayer: player's status changed to AVPlayerStatusUnknown");
      break;
    case MediaPlayerStatus::ReadyToPlay:
      report("playerReadyToPlay", [&] {
        if (delegate && delegate->playerReadyToPlay) delegate->playerReadyToPlay();
      });
      break;
    case MediaPlayerStatus::Failed: {
      OptionalError reason = error ? error : OptionalError(Error::media("the video failed"));
      size_t index = engine_ ? engine_->currentItemIndex() : 0;
      if (index < sources_.size()) {
        if (auto* source = dynamic_cast<AssetByteSource*>(sources_[index].get())) {
          if (auto loading = source->lastError()) reason = loading;
        }
      }
      if (didFinishPlaying_) didFinishPlaying_(videoToken_, reason);
      break;
    }
  }
}

void NembraPlayer::playerTimeControlStatusChanged(MediaPlayerTimeControlStatus status) {
  auto delegate = m_nembra.getPlayerDelegate();
  switch (status) {
    case MediaPlayerTimeControlStatus::Playing:
      report("playerPlaying", [&] {
        if (delegate && delegate->playerPlaying) delegate->playerPlaying();
      });
      break;
    case MediaPlayerTimeControlStatus::WaitingToPlay: {
      const double seconds = static_cast<int64_t>(currentTime() * 100) / 100.0;
      char text[64];
      std::snprintf(text, sizeof(text), "playerSeek:%.2f", seconds);
      report(
          text,
          [&] {
            if (delegate && delegate->playerSeek) delegate->playerSeek(seconds);
          },
          seconds);
      break;
    }
    case MediaPlayerTimeControlStatus::Paused:
      report("playerPaused", [&] {
        if (delegate && delegate->playerPaused) delegate->playerPaused();
      });
      break;
  }
}

void NembraPlayer::playerItemDidPlayToEnd(size_t index) {
  if (index + 1 < items_.size()) return;
  auto delegate = m_nembra.getPlayerDelegate();
  report("playerEnded", [&] {
    if (delegate && delegate->playerEnded) delegate->playerEnded();
  });
  contentDidFinishPlaying();
  if (didFinishPlaying_) didFinishPlaying_(videoToken_, std::nullopt);
  if (dismiss_) dismiss_();
}

void NembraPlayer::playerItemDidFail(size_t index, const Error& error) {
  m_nembra.log("item " + std::to_string(index) + " failed: " + error.message);
}

void NembraPlayer::wholeFileLoaded(const std::string& incomingPath, const std::string& url) {
  std::error_code ec;
  auto token = tokenFromVideoUrl(url);
  NembraCacheManager& cache = m_nembra.playerCacheManager();
  std::string path = cache.getCacheFilePathWithType(VIDEO, *token);
  m_nembra.log("NembraPlayer: cacheFullFileName: " + path);
  if (!m_nembra.playerConfig().isCachingEnabled()) {
    fs::remove(incomingPath, ec);
    return;
  }
  // A rename within the directory: the token's name never shows a partial file.
  fs::rename(incomingPath, path, ec);
  if (ec) {
    m_nembra.logError("cannot write " + path + ": " + ec.message());
    fs::remove(incomingPath, ec);
    return;
  }
  cache.trimCacheWithType(VIDEO);
}

void NembraPlayer::setupAdsLoader() {
  contentPlayHead_ = std::make_shared<PlayerPlayhead>(weak_from_this());
  adsLoader_ = makeAdsLoader();
  if (adsLoader_)
    adsLoader_->setDelegate(std::static_pointer_cast<AdsLoaderDelegate>(shared_from_this()));
}

void NembraPlayer::playWithAdsWithAdTagURL(const std::string& adTagUrl,
                                           AdDisplayContainer container,
                                           std::function<void(bool)> onShowContent) {
  showContent_ = std::move(onShowContent);
  if (!adsLoader_) {
    m_nembra.log("NembraPlayer: adsLoader failed to initialize");
    return;
  }
  AdsRequest request{adTagUrl, std::move(container), contentPlayHead_};
  adsLoader_->requestAds(std::move(request));
  pause();
  showContent(false);
}

void NembraPlayer::showContent(bool visible) {
  if (showContent_) showContent_(visible);
}

void NembraPlayer::contentDidFinishPlaying() {
  if (adsLoader_) {
    adsLoader_->contentComplete();
  } else {
    m_nembra.log("NembraPlayer: adsLoader failed to initialize");
  }
}

void NembraPlayer::adsLoaderAdsLoaded(std::shared_ptr<AdsManager> manager) {
  adsManager_ = std::move(manager);
  adsManager_->setDelegate(std::static_pointer_cast<AdsManagerDelegate>(shared_from_this()));
  adsManager_->initialize(AdsRenderingSettings{});
}

void NembraPlayer::adsLoaderFailedWithError(const Error& error) {
  m_nembra.log("ads failed: " + error.message);
  showContent(true);
  play();
}

void NembraPlayer::adsManagerDidReceiveAdEvent(AdsManager& manager, const AdEvent& event) {
  if (event.type == AdEventType::Loaded) manager.start();
}

void NembraPlayer::adsManagerDidReceiveAdError(AdsManager&, const Error& error) {
  m_nembra.log("ad error: " + error.message);
  showContent(true);
  play();
}

void NembraPlayer::adsManagerDidRequestContentPause(AdsManager&) {
  pause();
  showContent(false);
}

void NembraPlayer::adsManagerDidRequestContentResume(AdsManager&) {
  showContent(true);
  play();
}

}  // namespace nembra
