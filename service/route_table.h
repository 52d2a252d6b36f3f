// Maps a method and path to a route. Patterns are '/'-separated segments, literal or ":name";
// a ":name" segment must hold a safe token (see token_rules.h), so "..", "%2e%2e" (decoded
// before matching), NULs and empty segments never reach a route. HEAD is served by the GET
// route.
//
// Threading: add() during setup only; dispatch() from any number of threads afterwards.
#pragma once

#include <httplib.h>

#include <functional>
#include <string>
#include <vector>

#include "service/rest_request.h"

namespace nembra {

class RouteTable {
 public:
  using Handler = std::function<void(RestRequest&)>;

  void add(const std::string& method, const std::string& pattern, Handler handler);

  // Runs the matching route, or answers 404 (no such path), 405 (path known, method not) or 400
  // (a token segment that is not a safe token).
  void dispatch(const httplib::Request& request, httplib::Response& response,
                const httplib::ContentReader* reader) const;

 private:
  struct Route {
    std::string method;
    std::vector<std::string> segments;
    Handler handler;
  };
  static std::vector<std::string> split(const std::string& path);

  std::vector<Route> routes_;
};

}  // namespace nembra
