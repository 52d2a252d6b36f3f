#include "nembra/media_fields.h"

#include <utility>
#include <vector>

#include "api/utils.h"

namespace nembra {

namespace {

// The form's order, which is also the order of toString.
std::vector<std::pair<const char*, const std::string*>> formFields(const MediaFields& f) {
  return {{"key", &f.key},
          {"Content-Type", &f.contentType},
          {"bucket", &f.bucket},
          {"X-Amz-Algorithm", &f.xAmzAlgorithm},
          {"X-Amz-Credential", &f.xAmzCredential},
          {"X-Amz-Date", &f.xAmzDate},
          {"X-Amz-Security-Token", &f.xAmzSecurityToken},
          {"Policy", &f.policy},
          {"X-Amz-Signature", &f.xAmzSignature}};
}

}  // namespace

MediaFields MediaFields::initWithJson(const Json& json) {
  MediaFields fields;
  fields.setInfo(json);
  return fields;
}

void MediaFields::setInfo(const Json& json) {
  key = Utils::getStringFromJson(json, "key");
  contentType = Utils::getStringFromJson(json, "Content-Type");
  bucket = Utils::getStringFromJson(json, "bucket");
  xAmzAlgorithm = Utils::getStringFromJson(json, "X-Amz-Algorithm");
  xAmzCredential = Utils::getStringFromJson(json, "X-Amz-Credential");
  xAmzSignature = Utils::getStringFromJson(json, "X-Amz-Signature");
  xAmzDate = Utils::getStringFromJson(json, "X-Amz-Date");
  xAmzSecurityToken = Utils::getStringFromJson(json, "X-Amz-Security-Token");
  policy = Utils::getStringFromJson(json, "Policy");
}

void MediaFields::clear() { *this = MediaFields(); }

Json MediaFields::toDictionary() const {
  Json json = Json::object();
  for (const auto& [name, value] : formFields(*this)) json[name] = *value;
  return json;
}

std::string MediaFields::toString() const {
  // Kept as is: readers of the logs expect this exact layout.
  const std::string indent = "\n" + std::string(28, ' ');
  std::string text = "MediaFields{";
  const auto fields = formFields(*this);
  for (size_t i = 0; i < fields.size(); ++i) {
    text += indent + fields[i].first + "=" + *fields[i].second;
    text += i + 1 < fields.size() ? "," : "}";
  }
  return text;
}

}  // namespace nembra
