// How long a response may be kept, from its "Cache-Control" and "Expires" headers: the remote
// image loader and the players ask it before reusing a download.
//
// Threading: stateless; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "api/http_date_formatter.h"
#include "platform/http/http_client.h"

namespace nembra {

class HttpResponseFreshness {
 public:
  // The max-age in seconds, else the whole seconds until "Expires" (0 when it has passed), else
  // nothing. Directives are read in order, trimmed and lower-cased; reading stops at "no-store",
  // "must-revalidate" or "no-cache", and a later max-age replaces an earlier one. So a max-age
  // before "no-cache" still counts, and "no-store" alone still lets "Expires" decide: kept, the
  // image cache has always been sized by this rule.
  static std::optional<int64_t> findMaxAge(const HttpResponse& response);
  static std::optional<int64_t> findMaxAge(const HttpResponse& response,
                                           std::chrono::system_clock::time_point now);

  // The one formatter used to read "Expires", made once.
  static const HttpDateFormatter& RFC7231PreferredDateFormatter();
};

}  // namespace nembra
