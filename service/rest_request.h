// One request as a route sees it: the HTTP request and response, the body reader (only when a
// body was sent), the path's token parameters, and the helpers that read parameters and bodies
// within limits.
//
// Threading: lives on the HTTP worker thread serving the request.
#pragma once

#include <httplib.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "service/form_params.h"
#include "service/result.h"

namespace nembra {

struct RestRequest {
  const httplib::Request& http;
  httplib::Response& response;
  const httplib::ContentReader* reader = nullptr;  // null: no body
  std::vector<std::pair<std::string, std::string>> pathParams;

  // Where the server keeps a multipart body's Content-Type: the header is moved aside before
  // routing so that the server library leaves such bodies to the routes' own reader.
  static constexpr const char* kMultipartTypeHeader = "X-Nembra-Multipart-Type";
  // Refused bodies up to this size are read to their end before the answer.
  static constexpr uint64_t kMaxDrainBytes = 64ull << 20;

  // The body's Content-Type as the client sent it.
  std::string contentType() const;

  // The path parameter named |name| in the route pattern (":name"); "" when absent.
  const std::string& path(std::string_view name) const;

  // The query string's parameters, read from the raw request target.
  Result<FormParams> query() const;
  // The declared Content-Length, or nothing when the body is chunked or absent.
  std::optional<uint64_t> declaredLength() const;
  // Whether a body follows the head: a Content-Length above 0 or a chunked transfer. A request
  // with neither has none, whatever its method.
  bool hasBody() const;
  // The whole body, refused with 413 beyond |limit| bytes (before keeping any of it when the
  // length is declared).
  Result<std::string> readBody(uint64_t limit) const;
  // Query parameters followed by the body's: a form body (application/x-www-form-urlencoded) or
  // a JSON object whose values become text. Other body types are refused with 415, malformed
  // ones with 400.
  Result<FormParams> readParams(uint64_t limit) const;
};

}  // namespace nembra
