// Sample video ads for players to test against, and a record of every tracking pixel they fire:
//
//   GET    /ads/vast/inline.xml    a VAST 3.0 inline linear ad (4 s, skippable after 2 s)
//   GET    /ads/vast/inline4.xml   the same ad as VAST 4.1
//   GET    /ads/vast/wrapper.xml   a VAST 3.0 wrapper around inline.xml with its own tracking
//   GET    /ads/vast/empty.xml     an answer with no ad
//   GET    /ads/media/ad.mp4       the ad's clip (640x360 MP4, made on first request)
//   GET    /ads/track/:event       a tracking pixel; "ad" names the document level (inline,
//                                  wrapper) and, for "error", "code" the VAST error code
//   GET    /ads/tracking           the hits so far: {"inline": {"impression": 1, …},
//                                  "wrapper": {…}, "error": {"403": 1}}
//   DELETE /ads/tracking           forgets them
// None needs a session: ad tags are public.
//
// Threading: any HTTP worker thread; the hits and the clip's creation are under a lock.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "service/route_table.h"

namespace nembra {

class AdRoutes {
 public:
  static constexpr double kClipSeconds = 4.0;
  static constexpr int kClipWidth = 640;
  static constexpr int kClipHeight = 360;

  // |baseUrl| is the service's public base; the clip is kept at |clipPath|.
  AdRoutes(std::string baseUrl, std::string clipPath);

  void registerRoutes(RouteTable& routes);

 private:
  void document(RestRequest& request, const std::string& name);
  void clip(RestRequest& request);
  void track(RestRequest& request);
  void listHits(RestRequest& request);
  void clearHits(RestRequest& request);

  std::string inlineDocument(const std::string& version) const;
  std::string wrapperDocument() const;
  std::string emptyDocument() const;

  const std::string baseUrl_;
  const std::string clipPath_;
  std::mutex mutex_;
  bool clipReady_ = false;                                  // guarded by mutex_
  std::map<std::string, std::map<std::string, int>> hits_;  // level → event → count; mutex_
};

}  // namespace nembra
