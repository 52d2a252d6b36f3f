// The video player: plays one service video (or a list) by token or URL, preferring the copy in
// the player's cache and otherwise streaming through the caching loader, whose whole file it
// moves into the cache under the token. It reports a de-duplicated set of events to the
// application's player delegate, can add the service's transcription as subtitles, and runs
// ads around the content through the ads seam (playback/ads_loader.h).
//
// Threading: main queue only. The engine's events and the loader's callbacks are brought to
// the main queue; every delegate call is made there.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nembra/error.h"
#include "nembra/json.h"
#include "platform/media/media_player_engine.h"
#include "playback/ads_loader.h"
#include "playback/nembra_url_asset.h"
#include "playback/web_vtt.h"

namespace nembra {

class Nembra;

// One entry of a player's queue: an asset (through the loader unless local) and an optional
// WebVTT subtitle file.
struct NembraPlayerItem {
  std::shared_ptr<NembraURLAsset> asset;
  std::string textTrackPath;
};

class NembraPlayer : public MediaPlayerObserver,
                     public AdsLoaderDelegate,
                     public AdsManagerDelegate,
                     public std::enable_shared_from_this<NembraPlayer> {
 public:
  using Callback = std::function<void(std::shared_ptr<NembraPlayer> player)>;
  using DidFinishPlaying =
      std::function<void(const std::string& videoToken, const OptionalError& error)>;
  struct VideoTokens {
    std::vector<std::string> tokens;
  };
  struct VideoUrls {
    std::vector<std::string> urls;
  };

  // A token: the given URL, else the cached file, else the videos endpoint's URL.
  static std::shared_ptr<NembraPlayer> initWithNembraApplication(Nembra& application,
                                                                 const std::string& videoToken);
  static std::shared_ptr<NembraPlayer> initWithNembraApplication(
      Nembra& application, const std::string& videoToken,
      const std::optional<std::string>& videoUrl);
  static std::shared_ptr<NembraPlayer> initWithVideoURL(Nembra& application,
                                                        const std::string& url);
  static std::shared_ptr<NembraPlayer> initWithNembraApplication(Nembra& application,
                                                                 NembraPlayerItem playerItem);
  static std::shared_ptr<NembraPlayer> initWithNembraApplication(
      Nembra& application, std::vector<NembraPlayerItem> playerItems);

  // The URL (given, else the videos endpoint's) with the completed parameters as a query
  // ("?k=v&k2=v2&", the trailing "&" kept), subtitles when the service has a transcription.
  // |callback| runs on the main queue; with a null player when the item cannot be made.
  static void createPlayerWithAdditionalParams(Nembra& application, const std::string& videoToken,
                                               const Json& params, Callback callback);
  static void createPlayerWithAdditionalParams(Nembra& application, const std::string& videoToken,
                                               const std::optional<std::string>& videoUrl,
                                               const Json& params, Callback callback);
  static void createPlayerWithServerAuthToken(Nembra& application, const std::string& videoToken,
                                              const std::string& authToken, Callback callback);
  static void createPlayerWithClientAuthToken(Nembra& application, const std::string& videoToken,
                                              const std::string& authToken, Callback callback);
  // One item per token (the videos endpoint's URL), or per entry (a URL when it contains
  // "http://" or "https://", else a local path).
  static void createPlayersWithAdditionalParams(Nembra& application, const VideoTokens& videoTokens,
                                                const Json& params, Callback callback);
  static void createPlayersWithAdditionalParams(Nembra& application, const VideoUrls& videoUrls,
                                                const Json& params, Callback callback);

  // Writes the words as a WebVTT file in the temporary directory and returns its path.
  static std::string renderVTTWithWords(Nembra& application, const Json& words, const Json& times);
  // "?k=v&" for every entry of |params|, "" for none.
  static std::string queryFromParams(const Json& params);
  // The token of a ".../videos/<token>/video.mp4" URL.
  static std::optional<std::string> tokenFromVideoUrl(const std::string& url);

  ~NembraPlayer() override;

  // Where pictures and sound go; before the first play (the engine is made then). Without a
  // surface no pictures are shown; without an audio factory the sound is not played and the
  // pictures keep the system clock's time.
  void setOutputs(std::shared_ptr<VideoSurface> surface,
                  std::function<std::unique_ptr<AudioOutput>()> makeAudioOutput);
  void play();
  void pause();
  void seek(double seconds);
  void setMuted(bool muted);
  bool muted() const { return muted_; }
  double currentTime() const;
  double duration() const;
  // Stops playback and releases the media; no event follows.
  void close();

  const std::string& videoToken() const { return videoToken_; }
  const std::string& beforeEvent() const { return beforeEvent_; }
  void setDidFinishPlaying(DidFinishPlaying callback) { didFinishPlaying_ = std::move(callback); }
  // The host's "dismiss the parent screen" at the end of the content.
  void setDismiss(std::function<void()> dismiss) { dismiss_ = std::move(dismiss); }
  // Every event reported, as its text, for hosts that echo them (the CLI's --json).
  void setEventObserver(std::function<void(const std::string& event, double seconds)> observer) {
    eventObserver_ = std::move(observer);
  }
  // The subtitle showing now, if the current item has any.
  std::optional<std::string> currentSubtitle() const;
  size_t itemCount() const { return items_.size(); }
  const NembraPlayerItem& item(size_t index) const { return items_[index]; }

  // Ads: the tag is requested on |container| (the content's screen area); the content pauses
  // and hides until the ads let it go. |showContent| shows (true) or hides the content.
  void playWithAdsWithAdTagURL(const std::string& adTagUrl, AdDisplayContainer container,
                               std::function<void(bool visible)> showContent);
  bool adsLoaderExists() const { return adsLoader_ != nullptr; }

  // MediaPlayerObserver (main queue).
  void playerStatusChanged(MediaPlayerStatus status, const OptionalError& error) override;
  void playerTimeControlStatusChanged(MediaPlayerTimeControlStatus status) override;
  void playerItemDidPlayToEnd(size_t index) override;
  void playerItemDidFail(size_t index, const Error& error) override;

  // AdsLoaderDelegate / AdsManagerDelegate (main queue).
  void adsLoaderAdsLoaded(std::shared_ptr<AdsManager> manager) override;
  void adsLoaderFailedWithError(const Error& error) override;
  void adsManagerDidReceiveAdEvent(AdsManager& manager, const AdEvent& event) override;
  void adsManagerDidReceiveAdError(AdsManager& manager, const Error& error) override;
  void adsManagerDidRequestContentPause(AdsManager& manager) override;
  void adsManagerDidRequestContentResume(AdsManager& manager) override;

  // The loader's callbacks (any thread; brought to the main queue).
  std::shared_ptr<NembraAssetLoaderDelegatesDelegate> loaderDelegate() const {
    return loaderDelegate_;
  }

 private:
  NembraPlayer(Nembra& application, std::vector<NembraPlayerItem> items);
  static std::shared_ptr<NembraPlayer> make(Nembra& application,
                                            std::vector<NembraPlayerItem> items);
  static std::optional<NembraPlayerItem> itemForUrl(Nembra& application, const std::string& url);
  void setupAdsLoader();
  MediaPlayerEngine& engine();
  void report(const std::string& event, const std::function<void()>& call, double seconds = 0);
  void wholeFileLoaded(const std::string& incomingPath, const std::string& url);
  void contentDidFinishPlaying();
  void showContent(bool visible);

  Nembra& m_nembra;
  std::vector<NembraPlayerItem> items_;
  std::vector<std::vector<WebVttCue>> cues_;
  std::string videoToken_;
  std::string beforeEvent_;
  bool muted_ = false;
  DidFinishPlaying didFinishPlaying_;
  std::function<void()> dismiss_;
  std::function<void(const std::string&, double)> eventObserver_;

  std::shared_ptr<VideoSurface> surface_;
  std::function<std::unique_ptr<AudioOutput>()> makeAudioOutput_;
  std::unique_ptr<MediaPlayerEngine> engine_;

  std::unique_ptr<AdsLoader> adsLoader_;
  std::shared_ptr<AdContentPlayhead> contentPlayHead_;
  std::shared_ptr<AdsManager> adsManager_;
  std::function<void(bool)> showContent_;

  std::shared_ptr<NembraAssetLoaderDelegatesDelegate> loaderDelegate_;
  // Posted calls check it: the player may be gone when they run.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
