// Fires a VAST ad's tracking URLs: each event's URLs at most once per ad (a seek back past a
// quartile, or a second "complete", fires nothing), and the error URLs once, with the VAST
// error code in their [ERRORCODE] macro. The requests are GETs whose answers are not read.
//
// Threading: any thread; calls are serialised by a lock. No callbacks.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "api/vast_format.h"

namespace nembra {

class HttpClient;

class VastTracker {
 public:
  // |http| must outlive the tracker.
  VastTracker(HttpClient& http, std::map<VastEvent, std::vector<std::string>> tracking,
              std::vector<std::string> errorUrls);

  // Fires |event|'s URLs the first time; true then.
  bool fire(VastEvent event);
  // Playback is at |position| of |duration| seconds: fires start, then each quartile passed.
  void progress(double position, double duration);
  // Fires the error URLs with |code|; true the first time.
  bool fireError(VastErrorCode code);

  // |url| with [ERRORCODE] (when |code| is given) and [CACHEBUSTING] filled in.
  static std::string expandMacros(const std::string& url, std::optional<VastErrorCode> code,
                                  const std::string& cacheBuster);

 private:
  void send(const std::vector<std::string>& urls, std::optional<VastErrorCode> code);

  HttpClient& http_;
  const std::map<VastEvent, std::vector<std::string>> tracking_;
  const std::vector<std::string> errorUrls_;
  std::mutex mutex_;
  std::set<VastEvent> fired_;  // guarded by mutex_
  bool errorFired_ = false;    // guarded by mutex_
};

}  // namespace nembra
