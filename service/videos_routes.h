// The videos resource under the API base, "/v1/applications/APP/videos…": index, create (with a
// stream, for live publishing, or with a signed upload form), get, update, delete, streams,
// recorder submit, confirm, cover and file attach, and the cover image.
//
// Threading: routes run on HTTP worker threads, several at once.
#pragma once

#include "service/cdn_file_server.h"
#include "service/data_directory.h"
#include "service/fault_injection.h"
#include "service/media_json.h"
#include "service/media_library.h"
#include "service/rest_auth_gate.h"
#include "service/route_table.h"

namespace nembra {

class VideosRoutes {
 public:
  VideosRoutes(MediaLibrary& library, const MediaJson& json, const RestAuthGate& gate,
               const CdnFileServer& files, const FaultInjection& faults,
               const ServiceOptions& options);

  void registerRoutes(RouteTable& routes);

  // Shared with the host-less "/videos/…/video_submit" path.
  void submit(RestRequest& request, const AuthedRequest& authed);

 private:
  void index(RestRequest& request);
  void create(RestRequest& request);
  void createForUpload(RestRequest& request);
  void get(RestRequest& request);
  void update(RestRequest& request);
  void destroy(RestRequest& request);
  void cover(RestRequest& request);
  void listStreams(RestRequest& request);
  void createStream(RestRequest& request);
  void getStream(RestRequest& request);
  void updateStream(RestRequest& request);
  void destroyStream(RestRequest& request);
  void confirm(RestRequest& request);
  void attachCover(RestRequest& request);
  void attachVideo(RestRequest& request);

  // The live reply's publishing target, when the ingest runs.
  nlohmann::ordered_json rtmpTarget(const MediaView& view, const StreamRecord& stream) const;

  MediaLibrary& library_;
  const MediaJson& json_;
  const RestAuthGate& gate_;
  const CdnFileServer& files_;
  const FaultInjection& faults_;
  const ServiceOptions& options_;
};

}  // namespace nembra
