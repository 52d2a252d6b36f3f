// The date texts of the web, all UTC: ISO 8601 (policy expirations, audio and image dates), the
// compact SigV4 form, and HTTP dates (Last-Modified, If-Modified-Since, Expires).
//
// Threading: pure functions; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nembra {

int64_t unixNow();

std::string formatIso8601(int64_t unixSeconds);  // 2024-05-01T12:00:00.000Z
std::string formatAmzDate(int64_t unixSeconds);  // 20240501T120000Z

enum class HttpDateStyle {
  kImfFixdate,   // Wed, 01 May 2024 12:00:00 GMT
  kNumericZone,  // Wed, 1 May 2024 12:00:00 +0000 (the pattern "E, d MMM yyyy HH:mm:ss Z")
};
std::string formatHttpDate(int64_t unixSeconds, HttpDateStyle style = HttpDateStyle::kImfFixdate);

// "YYYY-MM-DDTHH:MM:SS", optional fraction, then "Z".
std::optional<int64_t> parseIso8601(std::string_view text);
// "YYYYMMDDTHHMMSSZ".
std::optional<int64_t> parseAmzDate(std::string_view text);
// "E, d MMM yyyy HH:mm:ss Z" with English names in any case: the weekday short or full (read,
// not checked against the date), a one- or two-digit day, and a zone that is "GMT", "UTC", "UT",
// "Z" or a numeric offset ("+0100", "-08:00"). Covers the IMF-fixdate of HTTP. Absent when the
// text does not follow it or names no real date.
std::optional<int64_t> parseHttpDate(std::string_view text);

}  // namespace nembra
