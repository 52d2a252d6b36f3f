// The AdsLoader of VAST ad tags: resolves the tag (api/vast_ad_resolver.h), downloads the chosen
// clip to a file, and hands the player a VastAdsManager for it. Every failure is reported to
// the loader's delegate and to the ad's error URLs with its VAST code (the clip not found 401,
// not arriving in time 402, …). Pre-rolls only: contentComplete() schedules nothing.
//
// Threading: main queue only; the delegate is called there. Work in flight when the loader is
// destroyed reports nothing.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "api/vast_ad_resolver.h"
#include "nembra/task_queue.h"
#include "playback/ads_loader.h"

namespace nembra {

class HttpClient;

class VastAdsLoader final : public AdsLoader {
 public:
  struct Options {
    VastAdResolver::Options resolver;
    // The screen the ad is shown on, for the media file's choice.
    VastScreen screen{1920, 1080};
    // Where clips are downloaded; the system's temporary directory when empty.
    std::string downloadDirectory;
    std::chrono::milliseconds mediaTimeout{15000};
  };

  // |mainQueue| must outlive the loader.
  VastAdsLoader(TaskQueue& mainQueue, std::shared_ptr<HttpClient> http, Options options);
  ~VastAdsLoader() override;

  void setDelegate(std::weak_ptr<AdsLoaderDelegate> delegate) override;
  void requestAds(AdsRequest request) override;
  void contentComplete() override {}

  // Makes every player's ads loader a VastAdsLoader from now on (setAdsLoaderFactory).
  static void install(TaskQueue& mainQueue, std::shared_ptr<HttpClient> http, Options options);

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace nembra
