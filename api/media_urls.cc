#include "api/media_urls.h"

#include "api/percent_encoding.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_config.h"

namespace nembra {

MediaUrls::MediaUrls(const NembraConfig& config, std::string appToken)
    : serverApiUrl_(config.server_api_url),
      devServerApiUrl_(config.dev_server_api_url),
      cdnApiUrl_(config.cdn_api_url),
      fileServerUrl_(config.file_server_url),
      appToken_(percentEncodePathSegment(appToken)) {}

MediaUrls MediaUrls::of(Nembra& application) {
  return MediaUrls(application.config(), application.token());
}

std::string MediaUrls::apiUrl(int type, const std::string& path) const {
  switch (type) {
    case VIDEO:
      return serverApiUrl_ + "/v1/applications/" + appToken_ + "/videos" + path;
    case AUDIO:
      return devServerApiUrl_ + "/v1/applications/" + appToken_ + "/audios" + path;
    case IMAGE:
      return devServerApiUrl_ + "/v1/applications/" + appToken_ + "/images" + path;
    default:
      return "";
  }
}

std::string MediaUrls::mediaUrl(int type, const std::string& token) const {
  switch (type) {
    case VIDEO:
      return cdnApiUrl_ + "/v1/applications/" + appToken_ + "/videos/" +
             percentEncodePathSegment(token) + "/video.mp4";
    case AUDIO:
      return fileServerUrl_ + "/v1/applications/" + appToken_ + "/audios/" +
             percentEncodePathSegment(token) + "/audio.aac";
    case IMAGE:
      return fileServerUrl_ + "/v1/applications/" + appToken_ + "/images/" +
             percentEncodePathSegment(token) + "/image.jpg";
    default:
      return "";
  }
}

std::string MediaUrls::videoCoverUrl(const std::string& token) const {
  return cdnApiUrl_ + "/v1/applications/" + appToken_ + "/videos/" +
         percentEncodePathSegment(token) + "/image";
}

std::string MediaUrls::uploadUrl(int type) const {
  if (type == VIDEO) return apiUrl(VIDEO, "/videos-upload-url?create_stream=true");
  return apiUrl(type, "");
}

std::string MediaUrls::confirmUrl(int type, const std::string& mediaToken,
                                  const std::string& streamToken) const {
  if (type == VIDEO) {
    return apiUrl(VIDEO, "/" + percentEncodePathSegment(mediaToken) + "/streams/" +
                             percentEncodePathSegment(streamToken) + "/confirm-video");
  }
  return apiUrl(type, "/" + percentEncodePathSegment(mediaToken) + "/confirm");
}

}  // namespace nembra
