#include "api/upload_url_reply.h"

#include <cstdio>

#include "api/media_token.h"
#include "api/utils.h"
#include "nembra/media_fields.h"
#include "nembra/media_type.h"

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

std::optional<std::string> base64Decode(const std::string& text) {
  auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+' || c == '-') return 62;
    if (c == '/' || c == '_') return 63;
    return -1;
  };
  std::string out;
  uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    if (c == '=' || c == '\n' || c == '\r') continue;
    int v = value(c);
    if (v < 0) return std::nullopt;
    buffer = (buffer << 6) | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((buffer >> bits) & 0xFF);
    }
  }
  return out;
}

// "2024-05-01T12:00:00Z" or with fractional seconds, as UTC.
std::optional<std::chrono::sys_seconds> parseIso8601(const std::string& text) {
  int year, month, day, hour, minute, second;
  char tail = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c", &year, &month, &day, &hour, &minute,
                  &second, &tail) < 6) {
    return std::nullopt;
  }
  using namespace std::chrono;
  year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                      std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  return sys_days(date) + hours(hour) + minutes(minute) + seconds(second);
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
  auto decoded = base64Decode(policy->get<std::string>());
  if (!decoded) return std::nullopt;
  Json document = Json::parse(*decoded, nullptr, false);
  if (!document.is_object()) return std::nullopt;
  auto expiration = document.find("expiration");
  if (expiration == document.end() || !expiration->is_string()) return std::nullopt;
  return parseIso8601(expiration->get<std::string>());
}

}  // namespace nembra
