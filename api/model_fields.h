// The list of a model's JSON fields, each a key bound to a member: one list drives both reading
// (setInfo) and writing (toDictionary), so the two can never disagree on a key, and both follow
// the list's order.
//
// Threading: a list is built once and only read afterwards; any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "api/utils.h"
#include "nembra/json.h"

namespace nembra {

template <typename Model>
class ModelFields {
 public:
  ModelFields& string(const char* key, std::string Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getStringFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k) { out[k] = m.*member; });
  }
  ModelFields& int32(const char* key, int32_t Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getIntFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k) { out[k] = m.*member; });
  }
  ModelFields& int64(const char* key, int64_t Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getLongFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k) { out[k] = m.*member; });
  }
  ModelFields& real(const char* key, double Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getDoubleFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k) { out[k] = m.*member; });
  }
  ModelFields& boolean(const char* key, bool Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getBoolFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k) { out[k] = m.*member; });
  }
  // The three kinds of raw JSON member; an absent value is left out of the dictionary.
  ModelFields& array(const char* key, std::optional<Json> Model::*member) {
    return raw(key, member, Utils::getArrayFromJson);
  }
  ModelFields& dictionary(const char* key, std::optional<Json> Model::*member) {
    return raw(key, member, Utils::getDictionaryFromJson);
  }
  ModelFields& object(const char* key, std::optional<Json> Model::*member) {
    return raw(key, member, Utils::getObjectFromJson);
  }
  // A model inside the model, filled in place from the dictionary under |key| and reset to its
  // defaults when there is none.
  template <typename Nested>
  ModelFields& nested(const char* key, Nested Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          if (std::optional<Json> d = Utils::getDictionaryFromJson(j, k)) {
            (m.*member).setInfo(*d);
          } else {
            (m.*member).clear();
          }
        },
        [member](const Model& m, Json& out, const char* k) {
          out[k] = (m.*member).toDictionary();
        });
  }

  void read(Model& model, const Json& json) const {
    for (const Field& field : fields_) field.read(model, json, field.key);
  }
  Json write(const Model& model) const {
    Json out = Json::object();
    for (const Field& field : fields_) field.write(model, out, field.key);
    return out;
  }

 private:
  using Reader = std::function<void(Model&, const Json&, const char*)>;
  using Writer = std::function<void(const Model&, Json&, const char*)>;
  using RawGetter = std::optional<Json> (*)(const Json&, const std::string&);

  struct Field {
    const char* key;
    Reader read;
    Writer write;
  };

  ModelFields& add(const char* key, Reader read, Writer write) {
    fields_.push_back({key, std::move(read), std::move(write)});
    return *this;
  }
  ModelFields& raw(const char* key, std::optional<Json> Model::*member, RawGetter get) {
    return add(
        key, [member, get](Model& m, const Json& j, const char* k) { m.*member = get(j, k); },
        [member](const Model& m, Json& out, const char* k) {
          if (m.*member) out[k] = *(m.*member);
        });
  }

  std::vector<Field> fields_;
};

}  // namespace nembra
