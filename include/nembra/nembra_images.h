// The images resource of the service, on the dev API base with files on the media server.
//
// Threading: as MediaEndpoint.
#pragma once

#include "nembra/image.h"
#include "nembra/media_endpoint.h"
#include "nembra/media_type.h"

namespace nembra {

class NembraImages : public MediaEndpoint<Image, IMAGE> {
 public:
  explicit NembraImages(Nembra& application) : MediaEndpoint(application) {}

  // "<file_server_url>/v1/applications/<app>/images/<token>/image.jpg".
  std::string getImageUrl(const std::string& token);
};

}  // namespace nembra
