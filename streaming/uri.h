// The parts of a target address such as "rtmp://user@host:1935/app/stream?key#x".
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace nembra {

class Uri {
 public:
  // Never fails: any text splits into parts, possibly empty ones. The cuts are made in this
  // order, each on what the previous ones left: the fragment at the last "#" (kept with its
  // "#"), the query at the last "?" (kept with its "?"), the scheme before the first "://",
  // the user info before the last "@", the path from the first "/" (kept with its "/"), the
  // port after the last ":" (read as atoi does, 0 when absent); the rest is the host.
  static Uri Parse(std::string_view text);

  // scheme "://" user-info "@" host ":" port path query fragment, each separator only when its
  // part is set (the port when it is not 0).
  std::string ToString() const;

  // The path's non-empty pieces between "/"s, and nothing before them: the application name
  // of "rtmp://host:1935/live/app/key" is every piece but the last ("live/app").
  std::vector<std::string> GetSegments() const;

  std::string scheme;
  std::string userInfo;
  std::string host;
  int port = 0;
  std::string path;
  std::string query;     // with its leading "?"
  std::string fragment;  // with its leading "#"
};

}  // namespace nembra
