// The HTTP request and response as the SDK hands them to callers: every request callback gets
// the HttpResponse (its status, final URL and headers), and a request's task (nembra/http_task.h)
// tells its original HttpRequest.
//
// Threading: plain values; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nembra {

// Header lines in the order they are sent or were received. Names keep their spelling.
using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  HttpHeaders headers;
  // Absent: no body at all (a GET). Present but empty: a body of zero bytes.
  std::optional<std::vector<uint8_t>> body;
};

struct HttpResponse {
  // 0 when no response arrived (the request failed before a status line).
  int status = 0;
  // The URL that answered, after any redirects.
  std::string url;
  // Headers of the final response.
  HttpHeaders headers;

  // The first header named |name|, compared without regard to case.
  std::optional<std::string> header(std::string_view name) const;
};

}  // namespace nembra
