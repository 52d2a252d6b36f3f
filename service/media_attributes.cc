#include "service/media_attributes.h"

#include <cmath>
#include <cstdlib>
#include <map>

namespace nembra {
namespace {

using Type = MediaAttributes::Type;

// How the SDK writes a null value into a form.
constexpr const char* kAbsent = "<null>";

// Fields every kind shares.
const std::map<std::string, Type>& commonFields() {
  static const std::map<std::string, Type> fields = {
      {"title", Type::Text},
      {"description", Type::Text},
      {"key", Type::Text},
      {"tags", Type::Tags},
      {"device_info", Type::Object},
      {"volatile", Type::Bool},
      {"user_language", Type::Bool},
      {"delete_old_streams", Type::Bool},
      {"auto_crop", Type::Bool},
      {"meta_profile_id", Type::Text},
      {"expiration_days", Type::Loose},
  };
  return fields;
}

const std::map<std::string, Type>& videoFields() {
  static const std::map<std::string, Type> fields = {
      {"data", Type::Loose},
      {"max_duration", Type::Number},
      {"enforce_duration", Type::Bool},
      {"only_audio", Type::Bool},
      {"video_source", Type::Text},
      {"auto_pad", Type::Bool},
      {"effect_profile", Type::Loose},
      {"default_image_selector", Type::Number},
      {"video_profile", Type::Text},
      {"meta_profile", Type::Text},
  };
  return fields;
}

const std::map<std::string, Type>& audioFields() {
  static const std::map<std::string, Type> fields = {
      {"data", Type::Text},
      {"min_duration", Type::Number},
      {"max_duration", Type::Text},
      {"enforce_duration", Type::Bool},
      {"resubmission_date", Type::Text},
      {"audio_profile_id", Type::Text},
  };
  return fields;
}

const std::map<std::string, Type>& imageFields() {
  static const std::map<std::string, Type> fields = {
      {"data", Type::Text}, {"image_source", Type::Number},    {"auto_pad", Type::Bool},
      {"hd", Type::Bool},   {"resubmission_date", Type::Text}, {"image_file_name", Type::Text},
  };
  return fields;
}

std::string trim(const std::string& text, const char* junk = " \t\r\n") {
  size_t start = text.find_first_not_of(junk);
  if (start == std::string::npos) return "";
  size_t end = text.find_last_not_of(junk);
  return text.substr(start, end - start + 1);
}

Error wrongType(const std::string& name, const char* expected) {
  return Error::invalidArgument("\"" + name + "\" must be " + expected);
}

}  // namespace

std::optional<Type> MediaAttributes::mediaField(MediaKind kind, const std::string& name) {
  if (auto it = commonFields().find(name); it != commonFields().end()) return it->second;
  const auto& own = kind == MediaKind::Video   ? videoFields()
                    : kind == MediaKind::Audio ? audioFields()
                                               : imageFields();
  if (auto it = own.find(name); it != own.end()) return it->second;
  return std::nullopt;
}

std::optional<Type> MediaAttributes::streamField(const std::string& name) {
  static const std::map<std::string, Type> fields = {
      {"volatile", Type::Bool},
      {"effect_profile", Type::Loose},
      {"effect_profile_id", Type::Text},
      {"video_profile_transcoding", Type::Text},
  };
  if (auto it = fields.find(name); it != fields.end()) return it->second;
  return std::nullopt;
}

Result<nlohmann::json> MediaAttributes::read(Type type, const std::string& name,
                                             const std::string& text) {
  switch (type) {
    case Type::Text:
      return nlohmann::json(text);
    case Type::Bool: {
      std::string value = trim(text);
      if (value == "true" || value == "1" || value == "yes") return nlohmann::json(true);
      if (value == "false" || value == "0" || value == "no" || value.empty()) {
        return nlohmann::json(false);
      }
      return wrongType(name, "true or false");
    }
    case Type::Number: {
      std::string value = trim(text);
      if (value.empty()) return nlohmann::json(0.0);
      char* end = nullptr;
      double number = std::strtod(value.c_str(), &end);
      if (end != value.c_str() + value.size() || !std::isfinite(number)) {
        return wrongType(name, "a number");
      }
      return nlohmann::json(number);
    }
    case Type::Tags: {
      auto json = nlohmann::json::parse(text, nullptr, false);
      nlohmann::json tags = nlohmann::json::array();
      if (json.is_array()) {
        for (const auto& tag : json) {
          if (!tag.is_string()) return wrongType(name, "a list of texts");
          tags.push_back(tag);
        }
        return tags;
      }
      // "a, b", or a list printed with parentheses or brackets around it.
      std::string list = trim(text);
      if (list.size() >= 2 && ((list.front() == '(' && list.back() == ')') ||
                               (list.front() == '[' && list.back() == ']'))) {
        list = list.substr(1, list.size() - 2);
      }
      size_t start = 0;
      while (start <= list.size()) {
        size_t comma = list.find(',', start);
        if (comma == std::string::npos) comma = list.size();
        std::string tag = trim(trim(list.substr(start, comma - start)), "\" \t\r\n");
        if (!tag.empty()) tags.push_back(tag);
        start = comma + 1;
      }
      return tags;
    }
    case Type::Object: {
      auto json = nlohmann::json::parse(text, nullptr, false);
      if (!json.is_object()) return wrongType(name, "a JSON object");
      return json;
    }
    case Type::Loose: {
      auto json = nlohmann::json::parse(text, nullptr, false);
      if (json.is_object() || json.is_array()) return json;
      return nlohmann::json(text);
    }
  }
  return wrongType(name, "a known type");
}

Result<nlohmann::json> MediaAttributes::applyToMedia(MediaKind kind, const nlohmann::json& current,
                                                     const FormParams& params) {
  nlohmann::json next = current.is_object() ? current : nlohmann::json::object();
  for (const auto& [name, text] : params.pairs()) {
    auto type = mediaField(kind, name);
    if (!type || text == kAbsent) continue;
    auto value = read(*type, name, text);
    if (!value) return value;
    next[name] = std::move(*value);
  }
  return next;
}

Result<nlohmann::json> MediaAttributes::applyToStream(const nlohmann::json& current,
                                                      const FormParams& params) {
  nlohmann::json next = current.is_object() ? current : nlohmann::json::object();
  for (const auto& [name, text] : params.pairs()) {
    auto type = streamField(name);
    if (!type || text == kAbsent) continue;
    auto value = read(*type, name, text);
    if (!value) return value;
    next[name] = std::move(*value);
  }
  return next;
}

}  // namespace nembra
