// The images resource of the service, on the dev API base with files on the media server.
//
// Threading: as MediaEndpoint.
#pragma once

#include "api/image.h"
#include "api/media_endpoint.h"
#include "api/media_type.h"

namespace nembra {

class NembraImages : public MediaEndpoint<Image, IMAGE> {
 public:
  explicit NembraImages(Nembra& application) : MediaEndpoint(application) {}

  // "<file_server_url>/v1/applications/<app>/images/<token>/image.jpg".
  std::string getImageUrl(const std::string& token);
};

}  // namespace nembra
