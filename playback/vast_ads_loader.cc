#include "playback/vast_ads_loader.h"

#include <filesystem>
#include <fstream>
#include <random>

#include "api/vast_tracker.h"
#include "nembra/http_task.h"
#include "platform/http/http_client.h"
#include "playback/vast_ads_manager.h"

namespace nembra {

// What callbacks from other threads reach: they hold it weakly and only ever touch it on the
// main queue, where the loader lives and dies.
struct VastAdsLoader::Core : std::enable_shared_from_this<Core> {
  Core(TaskQueue& queue, std::shared_ptr<HttpClient> client, Options settings)
      : mainQueue(queue), http(std::move(client)), options(std::move(settings)) {}

  TaskQueue& mainQueue;
  std::shared_ptr<HttpClient> http;
  const Options options;
  std::weak_ptr<AdsLoaderDelegate> delegate;
  std::unique_ptr<VastAdResolver> resolver;
  std::shared_ptr<HttpTask> download;

  // Runs |task| on the main queue while the loader exists.
  void onMain(std::function<void(Core&)> task) {
    std::weak_ptr<Core> weak = weak_from_this();
    mainQueue.async([weak, task = std::move(task)] {
      if (auto self = weak.lock()) task(*self);
    });
  }

  void failed(std::shared_ptr<VastTracker> tracker, VastErrorCode code,
              const std::string& message) {
    tracker->fireError(code);
    if (auto target = delegate.lock()) {
      target->adsLoaderFailedWithError(Error{ErrorKind::Media, message, static_cast<int>(code)});
    }
  }

  std::string clipPath() const {
    std::random_device random;
    std::string dir = options.downloadDirectory.empty()
                          ? std::filesystem::temp_directory_path().string()
                          : options.downloadDirectory;
    return dir + "/nembra-ad-" + std::to_string(random()) + std::to_string(random()) + ".mp4";
  }

  void resolved(AdsRequest request, VastAdResolver::Outcome outcome) {
    if (auto* failure = std::get_if<VastFailure>(&outcome)) {
      auto tracker = std::make_shared<VastTracker>(
          *http, std::map<VastEvent, std::vector<std::string>>{}, failure->errorUrls);
      return failed(tracker, failure->code, failure->message);
    }
    ResolvedVastAd ad = std::get<ResolvedVastAd>(std::move(outcome));
    auto tracker = std::make_shared<VastTracker>(*http, ad.tracking, ad.errorUrls);
    HttpRequest get;
    get.url = ad.mediaFile.url;
    HttpTaskEvents events;
    std::weak_ptr<Core> weak = weak_from_this();
    auto shared = std::make_shared<ResolvedVastAd>(std::move(ad));
    events.completion = [weak, tracker, shared, request](HttpTask&, std::vector<uint8_t> body,
                                                         const HttpResponse& response,
                                                         const OptionalError& error) mutable {
      auto self = weak.lock();
      if (!self) return;
      self->onMain([tracker, shared, request, body = std::move(body), status = response.status,
                    error](Core& core) mutable {
        core.downloaded(std::move(request), std::move(*shared), tracker, std::move(body), status,
                        error);
      });
    };
    download = http->dataTask(std::move(get), std::move(events));
    download->resume();
    std::weak_ptr<HttpTask> task = download;
    mainQueue.asyncAfter(options.mediaTimeout, [task] {
      if (auto running = task.lock()) running->cancel();
    });
  }

  void downloaded(AdsRequest request, ResolvedVastAd ad, std::shared_ptr<VastTracker> tracker,
                  std::vector<uint8_t> body, int status, const OptionalError& error) {
    download.reset();
    if (error) {
      bool late = error->kind == ErrorKind::Cancelled || error->kind == ErrorKind::Timeout;
      return failed(tracker,
                    late ? VastErrorCode::MediaFileTimeout : VastErrorCode::MediaFileNotFound,
                    "the ad's media file did not arrive: " + error->message);
    }
    if (status != 200 || body.empty()) {
      return failed(tracker, VastErrorCode::MediaFileNotFound,
                    "the ad's media file answered HTTP " + std::to_string(status));
    }
    std::string path = clipPath();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(body.data()),
              static_cast<std::streamsize>(body.size()));
    out.close();
    if (!out) {
      std::error_code ignored;
      std::filesystem::remove(path, ignored);
      return failed(tracker, VastErrorCode::GeneralLinear, "the ad's media file cannot be stored");
    }
    auto manager = std::make_shared<VastAdsManager>(mainQueue, std::move(ad), path, tracker,
                                                    std::move(request.displayContainer));
    if (auto target = delegate.lock()) target->adsLoaderAdsLoaded(manager);
  }
};

VastAdsLoader::VastAdsLoader(TaskQueue& mainQueue, std::shared_ptr<HttpClient> http,
                             Options options)
    : core_(std::make_shared<Core>(mainQueue, std::move(http), std::move(options))) {}

VastAdsLoader::~VastAdsLoader() {
  if (core_->download) core_->download->cancel();
  // The resolver's own thread is joined here, on the main queue, never from itself.
  core_->resolver.reset();
}

void VastAdsLoader::setDelegate(std::weak_ptr<AdsLoaderDelegate> delegate) {
  core_->delegate = std::move(delegate);
}

void VastAdsLoader::requestAds(AdsRequest request) {
  if (!core_->resolver) {
    core_->resolver = std::make_unique<VastAdResolver>(*core_->http, core_->options.resolver);
  }
  std::weak_ptr<Core> weak = core_;
  auto shared = std::make_shared<AdsRequest>(request);
  core_->resolver->resolve(
      request.adTagUrl, core_->options.screen, [weak, shared](VastAdResolver::Outcome outcome) {
        // On the resolver's thread: only hop, never keep the core alive here.
        auto self = weak.lock();
        if (!self) return;
        auto moved = std::make_shared<VastAdResolver::Outcome>(std::move(outcome));
        self->onMain([shared, moved](Core& core) { core.resolved(*shared, std::move(*moved)); });
      });
}

void VastAdsLoader::install(TaskQueue& mainQueue, std::shared_ptr<HttpClient> http,
                            Options options) {
  setAdsLoaderFactory([&mainQueue, http, options]() -> std::unique_ptr<AdsLoader> {
    return std::make_unique<VastAdsLoader>(mainQueue, http, options);
  });
}

}  // namespace nembra
