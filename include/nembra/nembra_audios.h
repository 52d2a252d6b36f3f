// The audios resource of the service, on the dev API base with files on the media server.
//
// Threading: as MediaEndpoint.
#pragma once

#include "nembra/audio.h"
#include "nembra/media_endpoint.h"
#include "nembra/media_type.h"

namespace nembra {

class NembraAudios : public MediaEndpoint<Audio, AUDIO> {
 public:
  explicit NembraAudios(Nembra& application) : MediaEndpoint(application) {}

  // "<file_server_url>/v1/applications/<app>/audios/<token>/audio.aac".
  std::string getAudioUrl(const std::string& token);
};

}  // namespace nembra
