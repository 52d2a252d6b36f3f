// Turns an ad tag URL into one playable linear ad: fetches the document through the HTTP
// client, follows wrappers (at most Options::maxWrappers, a URL seen twice is a loop, each hop
// given Options::hopTimeout), keeps the tracking and error URLs of every level, and picks the
// MP4 media file that suits the screen. Failures carry the VAST error code and every error URL
// met on the way, for VastTracker to report.
//
// Threading: resolve() and cancel() from any thread. The callback runs once per resolve(), on
// the resolver's serial queue "com.nembra.vast"; not at all after cancel() or destruction.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "api/vast_format.h"
#include "nembra/error.h"

namespace nembra {

class HttpClient;
class SerialQueue;

struct VastScreen {
  int width = 0;
  int height = 0;
};

// One ad ready to play, with the tracking of the inline ad and all the wrappers around it.
struct ResolvedVastAd {
  std::string adId;
  VastMediaFile mediaFile;
  double durationSeconds = 0;
  std::optional<double> skipOffsetSeconds;
  std::map<VastEvent, std::vector<std::string>> tracking;  // impressions under Impression
  std::vector<std::string> errorUrls;
};

struct VastFailure {
  VastErrorCode code = VastErrorCode::Undefined;
  std::string message;
  std::vector<std::string> errorUrls;  // of every document read before the failure
};

class VastAdResolver {
 public:
  struct Options {
    int maxWrappers = 5;
    std::chrono::milliseconds hopTimeout{5000};
  };
  using Outcome = std::variant<ResolvedVastAd, VastFailure>;
  using Callback = std::function<void(Outcome)>;

  // |http| must outlive the resolver.
  explicit VastAdResolver(HttpClient& http);
  VastAdResolver(HttpClient& http, Options options);
  ~VastAdResolver();
  VastAdResolver(const VastAdResolver&) = delete;
  VastAdResolver& operator=(const VastAdResolver&) = delete;

  void resolve(const std::string& tagUrl, VastScreen screen, Callback callback);
  // Drops the resolve in progress, if any: its callback never runs.
  void cancel();

  // Of the progressive MP4 files, the largest that fits inside |screen|; when none fits, the
  // smallest (shown scaled down). Nothing when there is no progressive MP4 at all.
  static std::optional<VastMediaFile> chooseMediaFile(const std::vector<VastMediaFile>& files,
                                                      VastScreen screen);

 private:
  struct Job;
  void fetch(const std::shared_ptr<Job>& job, const std::string& url);
  void received(const std::shared_ptr<Job>& job, uint64_t hop, std::vector<uint8_t> body,
                int status, const OptionalError& error);
  void finish(const std::shared_ptr<Job>& job, Outcome outcome);

  // How HTTP completions reach queue_: closed (null) before the queue goes, so nothing is
  // posted to it afterwards.
  struct Mailbox {
    std::mutex mutex;
    SerialQueue* queue = nullptr;  // guarded by mutex
  };

  HttpClient& http_;
  const Options options_;
  std::unique_ptr<SerialQueue> queue_;
  std::shared_ptr<Mailbox> mailbox_;
  std::shared_ptr<Job> current_;  // on queue_ only
};

}  // namespace nembra
