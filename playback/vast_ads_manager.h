// The AdsManager of one resolved VAST ad: plays its downloaded clip on the content's display
// container with an engine of its own, fires the ad's tracking (impression and start when it
// starts, each quartile as it is passed, complete at the end, skip when skipped) and reports
// the matching AdEvents; asks the player to pause its content when the ad starts and to resume
// it when the ad ends, is skipped or fails (error 405 fired then).
//
// Threading: main queue only, as the ads seam requires; the engine's calls arrive there too.
#pragma once

#include <memory>
#include <string>

#include "api/vast_ad_resolver.h"
#include "api/vast_tracker.h"
#include "nembra/task_queue.h"
#include "platform/dispatch/timer.h"
#include "platform/media/media_player_engine.h"
#include "playback/ads_loader.h"

namespace nembra {

class VastAdsManager final : public AdsManager,
                             public MediaPlayerObserver,
                             public std::enable_shared_from_this<VastAdsManager> {
 public:
  // |clipPath| is the ad's media file on disk, removed when the manager is destroyed.
  VastAdsManager(TaskQueue& mainQueue, ResolvedVastAd ad, std::string clipPath,
                 std::shared_ptr<VastTracker> tracker, AdDisplayContainer container);
  ~VastAdsManager() override;

  void setDelegate(std::weak_ptr<AdsManagerDelegate> delegate) override;
  void initialize(const AdsRenderingSettings& settings) override;
  void start() override;
  void destroy() override;

  // Whether the ad may be skipped now (it has a skip offset and played past it).
  bool canSkip() const;
  // Skips the ad when it may be skipped: the skip tracking fires and the content resumes.
  bool skip();
  const ResolvedVastAd& ad() const { return ad_; }

  // MediaPlayerObserver (main queue).
  void playerStatusChanged(MediaPlayerStatus status, const OptionalError& error) override;
  void playerItemDidPlayToEnd(size_t index) override;
  void playerItemDidFail(size_t index, const Error& error) override;

 private:
  void tick();
  // Fires start and each quartile |position| has passed.
  void advance(double position, double duration);
  void fire(VastEvent vastEvent, AdEventType adEvent);
  void send(AdEventType type, const std::string& message = "");
  void fail(VastErrorCode code, const std::string& message);
  // Stops the clip and hands the screen back to the content.
  void finish();

  TaskQueue& mainQueue_;
  const ResolvedVastAd ad_;
  const std::string clipPath_;
  std::shared_ptr<VastTracker> tracker_;
  AdDisplayContainer container_;
  std::weak_ptr<AdsManagerDelegate> delegate_;
  std::unique_ptr<MediaPlayerEngine> engine_;
  std::unique_ptr<Timer> ticker_;
  bool loaded_ = false;
  bool started_ = false;
  bool finished_ = false;
};

}  // namespace nembra
