#include "api/upload_url_reply.h"

#include "api/media_token.h"
#include "api/utils.h"
#include "nembra/media_fields.h"
#include "nembra/media_type.h"
#include "platform/http/base64.h"
#include "platform/http/http_time.h"

namespace nembra {

namespace {

struct ReplyKeys {
  const char* media;
  const char* stream;
};

std::optional<ReplyKeys> keysFor(int type) {
  switch (type) {
    case VIDEO:
      return ReplyKeys{"video", "stream"};
    case AUDIO:
      return ReplyKeys{"audio", "audio_stream"};
    case IMAGE:
      return ReplyKeys{"image", "image_stream"};
    default:
      return std::nullopt;
  }
}

// The "token" of the object under |key|, "" when there is none.
std::string tokenOf(const Json& reply, const char* key) {
  auto object = Utils::getDictionaryFromJson(reply, key);
  return object ? Utils::getStringFromJson(*object, "token") : "";
}

}  // namespace

OptionalError UploadUrlReply::parse(int type, const std::optional<Json>& json,
                                    UploadUrlReply& reply) {
  auto keys = keysFor(type);
  if (!keys) return Error::invalidArgument("media type " + std::to_string(type) + " is unknown");
  const std::string what = std::string("the ") + mediaTypeName(type) + " upload URL reply";
  if (!json || !json->is_object()) return Error::parse(what + " is not a JSON object");

  UploadUrlReply parsed;
  parsed.mediaToken = tokenOf(*json, keys->media);
  parsed.streamToken = tokenOf(*json, keys->stream);
  if (parsed.mediaToken.empty()) {
    return Error::parse(what + " has no \"" + keys->media + "\" object with a \"token\"");
  }
  if (auto error = MediaToken::check(parsed.mediaToken, std::string(keys->media) + " token")) {
    return error;
  }
  if (type == VIDEO && parsed.streamToken.empty()) {
    return Error::parse(what + " has no \"" + keys->stream + "\" object with a \"token\"");
  }
  if (!parsed.streamToken.empty()) {
    if (auto error = MediaToken::check(parsed.streamToken, "stream token")) return error;
  }

  auto urlData = Utils::getDictionaryFromJson(*json, "url_data");
  if (!urlData) return Error::parse(what + " has no \"url_data\" object");
  auto url = urlData->find("url");
  if (url == urlData->end() || !url->is_string()) {
    return Error::parse(what + "'s \"url_data\" has no \"url\" text");
  }
  parsed.url = url->get<std::string>();
  if (parsed.url.rfind("http://", 0) != 0 && parsed.url.rfind("https://", 0) != 0) {
    return Error::parse(what + "'s storage URL \"" + parsed.url.substr(0, 100) +
                        "\" is not an http(s) URL");
  }
  auto fields = Utils::getDictionaryFromJson(*urlData, "fields");
  if (!fields) return Error::parse(what + "'s \"url_data\" has no \"fields\" object");
  parsed.fields = MediaFields::initWithJson(*fields).toDictionary();
  reply = std::move(parsed);
  return std::nullopt;
}

std::optional<std::chrono::sys_seconds> UploadUrlReply::formExpiration(const Json& fields) {
  if (!fields.is_object()) return std::nullopt;
  auto policy = fields.find("Policy");
  if (policy == fields.end() || !policy->is_string()) return std::nullopt;
  auto decoded = base64DecodeLoose(policy->get<std::string>());
  if (!decoded) return std::nullopt;
  Json document = Json::parse(*decoded, nullptr, false);
  if (!document.is_object()) return std::nullopt;
  auto expiration = document.find("expiration");
  if (expiration == document.end() || !expiration->is_string()) return std::nullopt;
  auto seconds = parseIso8601(expiration->get<std::string>());
  if (!seconds) return std::nullopt;
  return std::chrono::sys_seconds(std::chrono::seconds(*seconds));
}

}  // namespace nembra
