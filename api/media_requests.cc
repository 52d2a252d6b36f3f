#include "api/media_requests.h"

#include "api/media_token.h"
#include "api/media_urls.h"
#include "api/percent_encoding.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_connect.h"

namespace nembra {

namespace {

OptionalError checkItem(int type, const std::string& token,
                        const std::optional<std::string>& streamToken) {
  std::string kind = *mediaTypeName(type) ? mediaTypeName(type) : "media";
  if (auto error = MediaToken::check(token, kind + " token")) return error;
  if (streamToken && !streamToken->empty()) return MediaToken::check(*streamToken, "stream token");
  return std::nullopt;
}

}  // namespace

MediaRequests::MediaRequests(Nembra& application) : application_(application) {}

MediaRequests::~MediaRequests() { *alive_ = false; }

std::string MediaRequests::itemPath(const std::string& token,
                                    const std::optional<std::string>& streamToken) {
  if (streamToken && streamToken->empty()) return "/" + percentEncodePathSegment(token);
  return "/" + percentEncodePathSegment(token) + "/streams/" +
         (streamToken ? percentEncodePathSegment(*streamToken) : "(null)");
}

MediaRequests::TaskHandle MediaRequests::refuse(Error error, JsonCallback callback) {
  application_.mainQueue().async([error = std::move(error), callback = std::move(callback)] {
    if (callback) callback(std::nullopt, HttpResponse{}, error);
  });
  return nullptr;
}

MediaRequests::TaskHandle MediaRequests::index(int type, const Json& data, JsonCallback callback) {
  return application_.connect().getJsonArrayWithPath(MediaUrls::of(application_).apiUrl(type, ""),
                                                     data, std::move(callback));
}

MediaRequests::TaskHandle MediaRequests::index(int type, const Json& data,
                                               StringCallback stringCallback) {
  return application_.connect().getStringWithPath(MediaUrls::of(application_).apiUrl(type, ""),
                                                  data, std::move(stringCallback));
}

MediaRequests::TaskHandle MediaRequests::get(int type, const std::string& token, const Json& data,
                                             JsonCallback callback) {
  if (auto error = checkItem(type, token, std::string())) return refuse(*error, callback);
  return application_.connect().getJsonWithPath(
      MediaUrls::of(application_).apiUrl(type, "/" + percentEncodePathSegment(token)), data,
      [type, callback = std::move(callback)](const std::optional<Json>& json,
                                             const HttpResponse& response,
                                             const OptionalError& error) {
        if (!callback) return;
        const char* member = type == AUDIO ? "audio" : type == IMAGE ? "image" : nullptr;
        if (!member || !json) return callback(json, response, error);
        std::optional<Json> object;
        if (json->is_object()) {
          auto found = json->find(member);
          if (found != json->end()) object = *found;
        }
        callback(object, response, error);
      });
}

MediaRequests::TaskHandle MediaRequests::update(int type, const std::string& token,
                                                const std::optional<std::string>& streamToken,
                                                const Json& data, JsonCallback callback) {
  // An empty token is let through: a model never read from the service updates "<base>/".
  if (!token.empty()) {
    if (auto error = checkItem(type, token, streamToken)) return refuse(*error, callback);
  }
  return application_.connect().postJsonWithPath(
      MediaUrls::of(application_).apiUrl(type, itemPath(token, streamToken)), data,
      std::move(callback));
}

MediaRequests::TaskHandle MediaRequests::remove(int type, const std::string& token,
                                                const std::optional<std::string>& streamToken,
                                                JsonCallback callback) {
  if (auto error = checkItem(type, token, streamToken)) return refuse(*error, callback);
  std::weak_ptr<bool> alive = alive_;
  Nembra* application = &application_;
  return application_.connect().deleteJsonWithPath(
      MediaUrls::of(application_).apiUrl(type, itemPath(token, streamToken)), nullptr,
      [application, alive, token, stream = streamToken.value_or(""),
       callback = std::move(callback)](const std::optional<Json>& json,
                                       const HttpResponse& response, const OptionalError& error) {
        if (callback) callback(json, response, error);
        application->mainQueue().async([application, alive, token, stream, json, response, error] {
          if (!alive.lock()) return;
          auto delegate = application->getUploadingDelegate();
          if (delegate && delegate->deleteWithToken) {
            delegate->deleteWithToken(token, stream, response, error, json);
          }
        });
      });
}

MediaRequests::TaskHandle MediaRequests::originalStreamDescription(const std::string& token,
                                                                   JsonCallback callback) {
  if (auto error = MediaToken::check(token, "video token")) return refuse(*error, callback);
  return application_.connect().getJsonWithPath(
      MediaUrls::of(application_).apiUrl(VIDEO, "/" + percentEncodePathSegment(token)), nullptr,
      [callback = std::move(callback)](const std::optional<Json>& json,
                                       const HttpResponse& response, const OptionalError& error) {
        if (!callback) return;
        std::optional<Json> stream;
        if (json && json->is_object()) {
          auto found = json->find("original_stream");
          if (found != json->end()) stream = *found;
        }
        callback(stream, response, error);
      });
}

}  // namespace nembra
