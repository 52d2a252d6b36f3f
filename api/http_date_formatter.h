// Reads and writes dates in the pattern "E, d MMM yyyy HH:mm:ss Z" with English names, as HTTP
// dates are written ("Sun, 6 Nov 1994 08:49:37 GMT"). The zone may be "GMT", "UTC", "UT", "Z"
// or a numeric offset ("+0100", "-08:00"). The weekday name is read but not checked against the
// date, as date formatters do.
//
// Threading: immutable; any thread, several at once.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace nembra {

class HttpDateFormatter {
 public:
  using TimePoint = std::chrono::system_clock::time_point;

  // Absent when |text| does not follow the pattern or names no real date.
  std::optional<TimePoint> dateFromString(std::string_view text) const;
  // "Sun, 6 Nov 1994 08:49:37 +0000".
  std::string stringFromDate(TimePoint date) const;
};

}  // namespace nembra
