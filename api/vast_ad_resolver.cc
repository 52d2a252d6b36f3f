#include "api/vast_ad_resolver.h"

#include <set>

#include "api/vast_parser.h"
#include "nembra/http_task.h"
#include "platform/dispatch/serial_queue.h"
#include "platform/http/http_client.h"

namespace nembra {

struct VastAdResolver::Job {
  VastScreen screen;
  Callback callback;
  std::set<std::string> visited;
  int wrappers = 0;
  uint64_t hop = 0;  // which fetch is current: late answers and timers of earlier ones are void
  std::shared_ptr<HttpTask> task;
  ResolvedVastAd collected;  // tracking and error URLs of the wrappers read so far
  bool done = false;
};

namespace {

void mergeTracking(const VastAd& ad, ResolvedVastAd& into) {
  auto& impressions = into.tracking[VastEvent::Impression];
  impressions.insert(impressions.end(), ad.impressions.begin(), ad.impressions.end());
  for (const auto& [event, urls] : ad.tracking) {
    auto& list = into.tracking[event];
    list.insert(list.end(), urls.begin(), urls.end());
  }
  into.errorUrls.insert(into.errorUrls.end(), ad.errors.begin(), ad.errors.end());
}

bool isMp4(const VastMediaFile& file) {
  return file.type == "video/mp4" && (file.delivery.empty() || file.delivery == "progressive");
}

}  // namespace

VastAdResolver::VastAdResolver(HttpClient& http) : VastAdResolver(http, Options{}) {}

VastAdResolver::VastAdResolver(HttpClient& http, Options options)
    : http_(http),
      options_(options),
      queue_(std::make_unique<SerialQueue>("com.nembra.vast")),
      mailbox_(std::make_shared<Mailbox>()) {
  mailbox_->queue = queue_.get();
}

VastAdResolver::~VastAdResolver() {
  cancel();
  {
    std::lock_guard lock(mailbox_->mutex);
    mailbox_->queue = nullptr;
  }
  // Runs what was posted (answers find their job done) and joins the thread while the members
  // those tasks use still exist.
  queue_.reset();
}

void VastAdResolver::resolve(const std::string& tagUrl, VastScreen screen, Callback callback) {
  queue_->async([this, tagUrl, screen, callback = std::move(callback)]() mutable {
    if (current_) current_->done = true;
    if (current_ && current_->task) current_->task->cancel();
    auto job = std::make_shared<Job>();
    job->screen = screen;
    job->callback = std::move(callback);
    current_ = job;
    fetch(job, tagUrl);
  });
}

void VastAdResolver::cancel() {
  auto drop = [this] {
    if (!current_) return;
    current_->done = true;
    if (current_->task) current_->task->cancel();
    current_.reset();
  };
  if (queue_->isCurrent()) {
    drop();
  } else {
    queue_->sync(drop);
  }
}

void VastAdResolver::fetch(const std::shared_ptr<Job>& job, const std::string& url) {
  if (!job->visited.insert(url).second) {
    return finish(
        job,
        VastFailure{VastErrorCode::WrapperLimit, "the wrapper chain loops back to " + url, {}});
  }
  const uint64_t hop = ++job->hop;
  HttpRequest request;
  request.url = url;
  HttpTaskEvents events;
  // The job holds its task, so the task's completion holds the job only weakly: no cycle
  // outlives a finished or dropped job.
  std::weak_ptr<Job> weakJob = job;
  events.completion = [this, mailbox = mailbox_, weakJob, hop](HttpTask&, std::vector<uint8_t> body,
                                                               const HttpResponse& response,
                                                               const OptionalError& error) {
    std::lock_guard lock(mailbox->mutex);
    if (!mailbox->queue) return;
    mailbox->queue->async(
        [this, weakJob, hop, body = std::move(body), status = response.status, error]() mutable {
          if (auto job = weakJob.lock()) received(job, hop, std::move(body), status, error);
        });
  };
  job->task = http_.dataTask(std::move(request), std::move(events));
  job->task->resume();
  queue_->asyncAfter(options_.hopTimeout, [this, job, hop, url] {
    if (job->done || job->hop != hop) return;
    if (job->task) job->task->cancel();
    finish(job, VastFailure{VastErrorCode::WrapperTimeout,
                            "the ad server did not answer " + url + " in time",
                            {}});
  });
}

void VastAdResolver::received(const std::shared_ptr<Job>& job, uint64_t hop,
                              std::vector<uint8_t> body, int status, const OptionalError& error) {
  if (job->done || job->hop != hop) return;
  const bool first = job->visited.size() == 1;
  // The tag itself failing is an undefined error; a wrapper's target failing, a wrapper error.
  const VastErrorCode fetchFailed =
      first ? VastErrorCode::Undefined : VastErrorCode::GeneralWrapper;
  if (error) {
    return finish(job, VastFailure{error->kind == ErrorKind::Timeout ? VastErrorCode::WrapperTimeout
                                                                     : fetchFailed,
                                   "the ad document could not be fetched: " + error->message,
                                   {}});
  }
  if (status != 200) {
    return finish(
        job, VastFailure{fetchFailed, "the ad server answered HTTP " + std::to_string(status), {}});
  }
  auto parsed =
      VastParser::parse(std::string_view(reinterpret_cast<const char*>(body.data()), body.size()));
  if (auto* failure = std::get_if<VastParseFailure>(&parsed)) {
    return finish(job, VastFailure{failure->code, failure->message, {}});
  }
  auto& document = std::get<VastDocument>(parsed);
  if (document.ads.empty()) {
    ResolvedVastAd& collected = job->collected;
    collected.errorUrls.insert(collected.errorUrls.end(), document.errors.begin(),
                               document.errors.end());
    // No ad is reported as the "no VAST response" code whether or not wrappers led here.
    return finish(job,
                  VastFailure{VastErrorCode::NoAdsAfterWrapper, "the ad document holds no ad", {}});
  }
  // A pod or a list of alternatives: the first ad is the pre-roll.
  const VastAd& ad = document.ads.front();
  mergeTracking(ad, job->collected);
  if (ad.wrapper) {
    if (++job->wrappers > options_.maxWrappers) {
      return finish(job,
                    VastFailure{VastErrorCode::WrapperLimit,
                                "more than " + std::to_string(options_.maxWrappers) + " wrappers",
                                {}});
    }
    return fetch(job, ad.adTagUri);
  }
  if (!ad.hasLinear) {
    return finish(job,
                  VastFailure{VastErrorCode::GeneralLinear, "the ad has no linear creative", {}});
  }
  auto file = chooseMediaFile(ad.mediaFiles, job->screen);
  if (!file) {
    return finish(job, VastFailure{VastErrorCode::NoSupportedMediaFile,
                                   "the ad has no progressive MP4 media file",
                                   {}});
  }
  ResolvedVastAd resolved = std::move(job->collected);
  resolved.adId = ad.id;
  resolved.mediaFile = *file;
  resolved.durationSeconds = ad.durationSeconds;
  resolved.skipOffsetSeconds = ad.skipOffsetSeconds;
  finish(job, std::move(resolved));
}

void VastAdResolver::finish(const std::shared_ptr<Job>& job, Outcome outcome) {
  if (job->done) return;
  job->done = true;
  job->task.reset();
  if (auto* failure = std::get_if<VastFailure>(&outcome)) {
    failure->errorUrls.insert(failure->errorUrls.begin(), job->collected.errorUrls.begin(),
                              job->collected.errorUrls.end());
  }
  if (current_ == job) current_.reset();
  if (job->callback) job->callback(std::move(outcome));
}

std::optional<VastMediaFile> VastAdResolver::chooseMediaFile(
    const std::vector<VastMediaFile>& files, VastScreen screen) {
  const VastMediaFile* bestFitting = nullptr;
  const VastMediaFile* smallest = nullptr;
  auto area = [](const VastMediaFile& file) { return int64_t{file.width} * file.height; };
  for (const auto& file : files) {
    if (!isMp4(file)) continue;
    if (!smallest || area(file) < area(*smallest)) smallest = &file;
    bool fits = file.width <= screen.width && file.height <= screen.height;
    if (fits && (!bestFitting || area(file) > area(*bestFitting) ||
                 (area(file) == area(*bestFitting) && file.bitrate > bestFitting->bitrate))) {
      bestFitting = &file;
    }
  }
  if (bestFitting) return *bestFitting;
  if (smallest) return *smallest;
  return std::nullopt;
}

}  // namespace nembra
