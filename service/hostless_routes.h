// The paths the SDK sends as they stand, with no server in front of them, which resolve against
// the API base: POST "/session", the "/debugger" events, "/videos/VIDEO" (a video's original
// stream description), and the submit paths the upload flow names its transfers with
// ("/videos/V/streams/S/video_submit", "/audios/…/audio_submit", "/images/…/image_submit").
// Their application is the one the session parameter's name carries.
//
// Threading: routes run on HTTP worker threads, several at once.
#pragma once

#include "service/media_json.h"
#include "service/media_library.h"
#include "service/media_routes.h"
#include "service/media_store.h"
#include "service/rest_auth_gate.h"
#include "service/route_table.h"
#include "service/videos_routes.h"

namespace nembra {

class HostlessRoutes {
 public:
  HostlessRoutes(MediaLibrary& library, MediaStore& store, const MediaJson& json,
                 const RestAuthGate& gate, VideosRoutes& videos, MediaRoutes& audios,
                 MediaRoutes& images, const ServiceOptions& options);

  void registerRoutes(RouteTable& routes);

 private:
  void createSession(RestRequest& request);
  void postEvents(RestRequest& request);
  void listEvents(RestRequest& request);
  void describeVideo(RestRequest& request);

  MediaLibrary& library_;
  MediaStore& store_;
  const MediaJson& json_;
  const RestAuthGate& gate_;
  VideosRoutes& videos_;
  MediaRoutes& audios_;
  MediaRoutes& images_;
  const ServiceOptions& options_;
};

}  // namespace nembra
