// The ads seam of the video player. NembraPlayer drives it as an ad client expects to be driven:
//
//   1. On creation the player asks the installed AdsLoaderFactory for a loader (none installed:
//      no loader, and the player logs that the loader failed to initialise) and gives it itself
//      as delegate, with an AdContentPlayhead over its own engine.
//   2. playWithAds(tag URL, container): the player builds an AdsRequest (tag URL, the
//      AdDisplayContainer over the container's surface, the playhead; no user context), calls
//      requestAds, then pauses and hides its content.
//   3. adsLoaded(manager): the player keeps the manager, becomes its delegate and calls
//      initialize(default AdsRenderingSettings). When the manager reports an AdEvent whose type
//      is AdEventType::Loaded (13), the player calls start().
//   4. failedWithError (loader) or didReceiveAdError (manager): the player shows its content and
//      plays. didRequestContentPause: pause and hide the content. didRequestContentResume: show
//      the content and play.
//   5. When the content's last item has played to its end the player calls contentComplete().
//
// An implementation plays the ad on the display container (the same surface the content uses)
// with an engine of its own, fires its tracking as it goes, and reports through the delegates.
//
// Threading: every call into a loader or manager is made on the main queue, and every delegate
// call must arrive on the main queue too. Delegates are held weakly: a player that is gone is
// not told.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "nembra/error.h"
#include "platform/audio/audio_output.h"
#include "platform/ui/video_surface.h"

namespace nembra {

class AdsManager;

// Where ads are shown: the content's own screen area. |makeAudioOutput| gives an output for
// the ad's sound (may give null: the ad is then timed by the system clock).
struct AdDisplayContainer {
  std::shared_ptr<VideoSurface> surface;
  std::function<std::unique_ptr<AudioOutput>()> makeAudioOutput;
};

// The content's position, read by the ads side to schedule breaks (seconds into the content).
class AdContentPlayhead {
 public:
  virtual ~AdContentPlayhead() = default;
  virtual double currentTime() const = 0;
};

struct AdsRequest {
  std::string adTagUrl;
  AdDisplayContainer displayContainer;
  std::shared_ptr<AdContentPlayhead> contentPlayhead;
};

// Kinds of ad events. Only Loaded has a meaning to the player (it starts the manager).
enum class AdEventType : int {
  Started = 1,
  FirstQuartile = 2,
  Midpoint = 3,
  ThirdQuartile = 4,
  Complete = 5,
  Skipped = 6,
  Clicked = 7,
  Paused = 8,
  Resumed = 9,
  AllAdsCompleted = 10,
  Impression = 11,
  Log = 12,
  Loaded = 13,
};

struct AdEvent {
  AdEventType type = AdEventType::Log;
  std::string message;
};

struct AdsRenderingSettings {
  // Ads longer than this many seconds are skipped; 0 for no limit.
  double maxAdDuration = 0;
};

class AdsManagerDelegate {
 public:
  virtual ~AdsManagerDelegate() = default;
  virtual void adsManagerDidReceiveAdEvent(AdsManager& manager, const AdEvent& event) = 0;
  virtual void adsManagerDidReceiveAdError(AdsManager& manager, const Error& error) = 0;
  virtual void adsManagerDidRequestContentPause(AdsManager& manager) = 0;
  virtual void adsManagerDidRequestContentResume(AdsManager& manager) = 0;
};

// The ads of one request, ready to play.
class AdsManager {
 public:
  virtual ~AdsManager() = default;
  virtual void setDelegate(std::weak_ptr<AdsManagerDelegate> delegate) = 0;
  // Prepares the first ad; a Loaded event follows when it can start.
  virtual void initialize(const AdsRenderingSettings& settings) = 0;
  virtual void start() = 0;
  // Stops any ad playing and releases the manager's media.
  virtual void destroy() = 0;
};

class AdsLoaderDelegate {
 public:
  virtual ~AdsLoaderDelegate() = default;
  virtual void adsLoaderAdsLoaded(std::shared_ptr<AdsManager> manager) = 0;
  virtual void adsLoaderFailedWithError(const Error& error) = 0;
};

class AdsLoader {
 public:
  virtual ~AdsLoader() = default;
  virtual void setDelegate(std::weak_ptr<AdsLoaderDelegate> delegate) = 0;
  // Fetches the tag; answers with adsLoaderAdsLoaded or adsLoaderFailedWithError.
  virtual void requestAds(AdsRequest request) = 0;
  // The content has played to its end (post-rolls may follow).
  virtual void contentComplete() = 0;
};

using AdsLoaderFactory = std::function<std::unique_ptr<AdsLoader>()>;

// Installs the ad client the players use from then on (main queue); an empty factory removes
// it. Without one, players have no ads loader.
void setAdsLoaderFactory(AdsLoaderFactory factory);
// A new loader from the installed factory, or null.
std::unique_ptr<AdsLoader> makeAdsLoader();

}  // namespace nembra
