#include "service/rest_request.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "service/http_text.h"

namespace nembra {
namespace {

std::string lowerMediaType(const std::string& contentType) {
  std::string type = contentType.substr(0, contentType.find(';'));
  type.erase(std::remove_if(type.begin(), type.end(), [](char c) { return c == ' ' || c == '\t'; }),
             type.end());
  return asciiLower(type);
}

// Scalars as their text ("true", 12, "title"); nested values as compact JSON.
std::string jsonValueText(const nlohmann::json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_null()) return "";
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

const std::string& RestRequest::path(std::string_view name) const {
  static const std::string kEmpty;
  for (const auto& [key, value] : pathParams) {
    if (key == name) return value;
  }
  return kEmpty;
}

std::string RestRequest::contentType() const {
  if (http.has_header(kMultipartTypeHeader)) return http.get_header_value(kMultipartTypeHeader);
  return http.get_header_value("Content-Type");
}

Result<FormParams> RestRequest::query() const {
  size_t mark = http.target.find('?');
  if (mark == std::string::npos) return FormParams();
  return FormParams::parse(std::string_view(http.target).substr(mark + 1));
}

std::optional<uint64_t> RestRequest::declaredLength() const {
  if (!http.has_header("Content-Length")) return std::nullopt;
  std::string text = http.get_header_value("Content-Length");
  uint64_t length = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), length);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return length;
}

bool RestRequest::hasBody() const {
  if (!reader) return false;
  if (auto length = declaredLength()) return *length > 0;
  std::string encoding = http.get_header_value("Transfer-Encoding");
  std::transform(encoding.begin(), encoding.end(), encoding.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return encoding.find("chunked") != std::string::npos;
}

Result<std::string> RestRequest::readBody(uint64_t limit) const {
  std::string body;
  if (!hasBody()) return body;
  auto tooLarge = [limit] {
    return Error::http(413, "the request body is larger than " + std::to_string(limit) + " bytes");
  };
  if (auto length = declaredLength(); length && *length > limit) {
    // A modest excess is read and dropped, so the client gets to read the answer and keep its
    // connection; a huge one ends the connection instead.
    if (*length > kMaxDrainBytes) {
      response.set_header("Connection", "close");
      return tooLarge();
    }
    bool drained = (*reader)([](const char*, size_t) { return true; });
    if (!drained) response.set_header("Connection", "close");
    return tooLarge();
  }
  bool overflow = false;
  bool read = (*reader)([&](const char* data, size_t size) {
    if (body.size() + size > limit) {
      overflow = true;
      return false;
    }
    body.append(data, size);
    return true;
  });
  if (overflow) {
    response.set_header("Connection", "close");
    return tooLarge();
  }
  if (!read) return Error::http(400, "the request body could not be read to its end");
  return body;
}

Result<FormParams> RestRequest::readParams(uint64_t limit) const {
  auto params = query();
  if (!params) return params;
  auto body = readBody(limit);
  if (!body) return body.error();
  if (body->empty()) return params;

  std::string type = lowerMediaType(contentType());
  if (type == "application/x-www-form-urlencoded") {
    auto form = FormParams::parse(*body);
    if (!form) return form;
    params->append(*form);
    return params;
  }
  if (type == "application/json") {
    auto json = nlohmann::json::parse(*body, nullptr, false);
    if (json.is_discarded()) return Error::http(400, "the body is not valid JSON");
    if (!json.is_object()) return Error::http(400, "the JSON body must be an object");
    for (const auto& [name, value] : json.items()) params->add(name, jsonValueText(value));
    return params;
  }
  return Error::http(415, "a body of type \"" + type +
                              "\" is not accepted here; send application/x-www-form-urlencoded");
}

}  // namespace nembra
