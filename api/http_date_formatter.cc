#include "api/http_date_formatter.h"

#include "platform/http/http_time.h"

namespace nembra {

std::optional<HttpDateFormatter::TimePoint> HttpDateFormatter::dateFromString(
    std::string_view text) const {
  auto seconds = parseHttpDate(text);
  if (!seconds) return std::nullopt;
  return TimePoint(std::chrono::seconds(*seconds));
}

std::string HttpDateFormatter::stringFromDate(TimePoint date) const {
  const auto whole = std::chrono::floor<std::chrono::seconds>(date);
  return formatHttpDate(whole.time_since_epoch().count(), HttpDateStyle::kNumericZone);
}

}  // namespace nembra
