#include "nembra/media_fields.h"

#include <iterator>

#include "api/model_field_lists.h"

namespace nembra {

// The form's order, which is also the order of toString.
const ModelFields<MediaFields>& mediaFieldsFields() {
  using M = MediaFields;
  static const ModelFields<M> list = ModelFields<M>()
                                         .string("key", &M::key)
                                         .string("Content-Type", &M::contentType)
                                         .string("bucket", &M::bucket)
                                         .string("X-Amz-Algorithm", &M::xAmzAlgorithm)
                                         .string("X-Amz-Credential", &M::xAmzCredential)
                                         .string("X-Amz-Date", &M::xAmzDate)
                                         .string("X-Amz-Security-Token", &M::xAmzSecurityToken)
                                         .string("Policy", &M::policy)
                                         .string("X-Amz-Signature", &M::xAmzSignature);
  return list;
}

MediaFields MediaFields::initWithJson(const Json& json) {
  MediaFields fields;
  fields.setInfo(json);
  return fields;
}

void MediaFields::setInfo(const Json& json) { mediaFieldsFields().read(*this, json); }

void MediaFields::clear() { *this = MediaFields(); }

Json MediaFields::toDictionary() const { return mediaFieldsFields().write(*this); }

std::string MediaFields::toString() const {
  // Kept as is: readers of the logs expect this exact layout.
  const std::string indent = "\n" + std::string(28, ' ');
  std::string text = "MediaFields{";
  const Json fields = toDictionary();
  for (auto it = fields.begin(); it != fields.end(); ++it) {
    text += indent + it.key() + "=" + it->get<std::string>();
    text += std::next(it) != fields.end() ? "," : "}";
  }
  return text;
}

}  // namespace nembra
