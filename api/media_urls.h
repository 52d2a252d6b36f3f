// The service's URL rules in one place: the REST base of each media type, the direct media file
// URLs, and the upload flow's first-step and confirm URLs. The connection and the media
// operations both build their URLs here.
//
// Threading: a plain value copied out of the configuration; any thread.
#pragma once

#include <string>

namespace nembra {

class Nembra;
class NembraConfig;

class MediaUrls {
 public:
  MediaUrls(const NembraConfig& config, std::string appToken);
  // The owner's configuration and token as they are now (makes the configuration if needed).
  static MediaUrls of(Nembra& application);

  // The REST base of |type| followed by |path|: videos on server_api_url, audios and images on
  // dev_server_api_url (deliberately apart, as the service is deployed); "" for another type.
  std::string apiUrl(int type, const std::string& path) const;
  // The media file URL of |token|: videos on cdn_api_url, audios and images on file_server_url;
  // "" for another type.
  std::string mediaUrl(int type, const std::string& token) const;
  // A video's cover picture on cdn_api_url.
  std::string videoCoverUrl(const std::string& token) const;
  // Where the upload flow asks for a storage URL: the video collection's
  // "/videos-upload-url?create_stream=true", the audio and image collections themselves.
  std::string uploadUrl(int type) const;
  // Where the upload flow confirms: a video's stream, an audio's or image's media itself.
  std::string confirmUrl(int type, const std::string& mediaToken,
                         const std::string& streamToken) const;

 private:
  std::string serverApiUrl_;
  std::string devServerApiUrl_;
  std::string cdnApiUrl_;
  std::string fileServerUrl_;
  std::string appToken_;
};

}  // namespace nembra
