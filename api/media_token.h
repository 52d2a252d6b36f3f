// What a media or stream token may hold before the SDK puts it into a file name or a URL path.
// Tokens come from the service and from hosts; one holding "/", "..", NUL, a percent escape or
// any other character outside the narrow alphabet below could name a file outside the cache
// directory or a different resource, so it is refused before any file or request is touched.
//
// Threading: stateless; any thread.
#pragma once

#include <string>
#include <string_view>

#include "nembra/error.h"

namespace nembra {

class MediaToken {
 public:
  static constexpr size_t kMaxLength = 200;

  // 1 to kMaxLength characters of A-Z, a-z, 0-9, '_', '-' and '.', not starting with '.' and
  // holding no "..".
  static bool isSafe(std::string_view token);
  // An InvalidArgument error naming |what| ("video token") when |token| is not safe.
  static OptionalError check(std::string_view token, const std::string& what);
};

}  // namespace nembra
