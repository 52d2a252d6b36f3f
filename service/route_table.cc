#include "service/route_table.h"

#include "service/service_reply.h"
#include "service/token_rules.h"

namespace nembra {

std::vector<std::string> RouteTable::split(const std::string& path) {
  std::vector<std::string> segments;
  if (path.empty() || path[0] != '/') return segments;
  size_t start = 1;
  for (;;) {
    size_t slash = path.find('/', start);
    segments.push_back(path.substr(start, slash - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return segments;
}

void RouteTable::add(const std::string& method, const std::string& pattern, Handler handler) {
  routes_.push_back(Route{method, split(pattern), std::move(handler)});
}

void RouteTable::dispatch(const httplib::Request& request, httplib::Response& response,
                          const httplib::ContentReader* reader) const {
  std::string method = request.method == "HEAD" ? "GET" : request.method;
  std::vector<std::string> segments = split(request.path);
  std::string badToken;
  std::string allowed;
  for (const Route& route : routes_) {
    if (route.segments.size() != segments.size()) continue;
    std::vector<std::pair<std::string, std::string>> params;
    bool literalsMatch = true;
    std::string invalid;
    for (size_t i = 0; i < segments.size() && literalsMatch; ++i) {
      const std::string& expected = route.segments[i];
      if (!expected.empty() && expected[0] == ':') {
        if (!isSafeToken(segments[i]) && invalid.empty()) {
          invalid = "\"" + segments[i].substr(0, 64) + "\" is not a valid " + expected.substr(1) +
                    " token";
        }
        params.emplace_back(expected.substr(1), segments[i]);
      } else if (expected != segments[i]) {
        literalsMatch = false;
      }
    }
    if (!literalsMatch) continue;
    if (!invalid.empty()) {
      if (badToken.empty()) badToken = invalid;
      continue;
    }
    if (route.method != method) {
      if (allowed.find(route.method) == std::string::npos) {
        allowed += (allowed.empty() ? "" : ", ") + route.method;
      }
      continue;
    }
    RestRequest rest{request, response, reader, std::move(params)};
    route.handler(rest);
    return;
  }
  if (!badToken.empty()) {
    ServiceReply::error(response, 400, badToken);
  } else if (!allowed.empty()) {
    response.set_header("Allow", allowed);
    ServiceReply::error(response, 405, request.method + " is not allowed on " + request.path);
  } else {
    ServiceReply::error(response, 404, "nothing is served at " + request.path);
  }
}

}  // namespace nembra
