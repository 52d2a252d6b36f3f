// The CDN ("/cdn") and file server ("/files") of the media URLs the SDK builds:
//   /cdn/v1/applications/APP/videos/VIDEO/video.mp4 and …/image
//   /files/v1/applications/APP/audios/AUDIO/audio.aac
//   /files/v1/applications/APP/images/IMAGE/image.jpg
// with HEAD, one Range per request (206; 416 when unsatisfiable), ETag, Last-Modified,
// Cache-Control max-age, and If-None-Match / If-Modified-Since answered 304. Files stream from
// disk in blocks, held to the throttle rate when one is set.
//
// Threading: any HTTP worker thread, several at once.
#pragma once

#include <string>

#include "service/fault_injection.h"
#include "service/media_library.h"
#include "service/rest_request.h"
#include "service/route_table.h"
#include "service/session_registry.h"

namespace nembra {

class CdnFileServer {
 public:
  CdnFileServer(MediaLibrary& library, SessionRegistry& sessions, const FaultInjection& faults,
                int maxAgeSeconds);

  void registerRoutes(RouteTable& routes);

  // Answers |request| with the file at |file| (also used by the REST cover route).
  void serve(RestRequest& request, const ServedFile& file) const;

 private:
  void serveMedia(RestRequest& request, MediaKind kind, const char* tokenName, bool cover);

  MediaLibrary& library_;
  SessionRegistry& sessions_;
  const FaultInjection& faults_;
  const int maxAgeSeconds_;
};

}  // namespace nembra
