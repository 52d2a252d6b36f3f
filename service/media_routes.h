// The audios or the images resource under the dev API base,
// "/embed/v1/applications/APP/audios…" or "…/images…": index, create with a signed upload form
// (the SDK's upload-URL request posts to the collection itself), get (the model under "audio" or
// "image"), update, delete, confirm, and the stream's submit. One instance per kind.
//
// Threading: routes run on HTTP worker threads, several at once.
#pragma once

#include "service/media_json.h"
#include "service/media_library.h"
#include "service/rest_auth_gate.h"
#include "service/route_table.h"

namespace nembra {

class MediaRoutes {
 public:
  // REQUIRES: |kind| is Audio or Image.
  MediaRoutes(MediaKind kind, MediaLibrary& library, const MediaJson& json,
              const RestAuthGate& gate);

  void registerRoutes(RouteTable& routes);

  // Shared with the host-less "/audios|images/…/…_submit" path.
  void submit(RestRequest& request, const AuthedRequest& authed);

 private:
  void index(RestRequest& request);
  void create(RestRequest& request);
  void get(RestRequest& request);
  void update(RestRequest& request);
  void destroy(RestRequest& request);
  void confirm(RestRequest& request);
  void getStream(RestRequest& request);
  void updateStream(RestRequest& request);
  void destroyStream(RestRequest& request);

  const MediaKind kind_;
  const std::string name_;  // "audio" / "image": the reply keys and path parameter
  MediaLibrary& library_;
  const MediaJson& json_;
  const RestAuthGate& gate_;
};

}  // namespace nembra
