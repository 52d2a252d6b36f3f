// The list of a model's JSON fields, each a key bound to a member: one list drives both reading
// (setInfo) and writing (toDictionary), so the two can never disagree on a key, and both follow
// the list's order. The local service writes its replies through the same lists, so what it
// sends is what the models read.
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

// How booleans go out. kText writes "true" / "false": the models read a boolean as true only
// from the text "true", and a JSON true prints as "1" on the reading side.
enum class BooleanForm { kJson, kText };

template <typename Model>
class ModelFields {
 public:
  ModelFields& string(const char* key, std::string Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getStringFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k, BooleanForm) { out[k] = m.*member; });
  }
  ModelFields& int32(const char* key, int32_t Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getIntFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k, BooleanForm) { out[k] = m.*member; });
  }
  ModelFields& int64(const char* key, int64_t Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getLongFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k, BooleanForm) { out[k] = m.*member; });
  }
  ModelFields& real(const char* key, double Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getDoubleFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k, BooleanForm) { out[k] = m.*member; });
  }
  ModelFields& boolean(const char* key, bool Model::*member) {
    return add(
        key,
        [member](Model& m, const Json& j, const char* k) {
          m.*member = Utils::getBoolFromJson(j, k);
        },
        [member](const Model& m, Json& out, const char* k, BooleanForm form) {
          if (form == BooleanForm::kText) {
            out[k] = m.*member ? "true" : "false";
          } else {
            out[k] = m.*member;
          }
        });
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
  // A model inside the model, read and written through its own list (|list| is called at use, so
  // lists may be built in any order): filled in place from the dictionary under |key|, and reset
  // with its clear() when there is none.
  template <typename Nested>
  ModelFields& nested(const char* key, Nested Model::*member,
                      const ModelFields<Nested>& (*list)()) {
    return add(
        key,
        [member, list](Model& m, const Json& j, const char* k) {
          if (std::optional<Json> d = Utils::getDictionaryFromJson(j, k)) {
            list().read(m.*member, *d);
          } else {
            (m.*member).clear();
          }
        },
        [member, list](const Model& m, Json& out, const char* k, BooleanForm form) {
          out[k] = list().write(m.*member, form);
        });
  }

  // Every field from |json|; a missing or null key sets that field's default.
  void read(Model& model, const Json& json) const {
    for (const Field& field : fields_) field.read(model, json, field.key);
  }
  // Every field under its key, in list order; absent raw values are left out.
  Json write(const Model& model, BooleanForm form = BooleanForm::kJson) const {
    Json out = Json::object();
    for (const Field& field : fields_) field.write(model, out, field.key, form);
    return out;
  }
  std::vector<const char*> keys() const {
    std::vector<const char*> out;
    for (const Field& field : fields_) out.push_back(field.key);
    return out;
  }

 private:
  using Reader = std::function<void(Model&, const Json&, const char*)>;
  using Writer = std::function<void(const Model&, Json&, const char*, BooleanForm)>;
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
        [member](const Model& m, Json& out, const char* k, BooleanForm) {
          if (m.*member) out[k] = *(m.*member);
        });
  }

  std::vector<Field> fields_;
};

}  // namespace nembra
