// The date formats the service speaks: ISO 8601 (policy expirations, audio and image dates),
// the compact SigV4 form, and the HTTP date of Last-Modified and If-Modified-Since. All UTC.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nembra {

int64_t unixNow();

std::string formatIso8601(int64_t unixSeconds);   // 2024-05-01T12:00:00.000Z
std::string formatAmzDate(int64_t unixSeconds);   // 20240501T120000Z
std::string formatHttpDate(int64_t unixSeconds);  // Wed, 01 May 2024 12:00:00 GMT

// "YYYY-MM-DDTHH:MM:SS", optional fraction, then "Z".
std::optional<int64_t> parseIso8601(std::string_view text);
// "YYYYMMDDTHHMMSSZ".
std::optional<int64_t> parseAmzDate(std::string_view text);
// The IMF-fixdate form of RFC 7231.
std::optional<int64_t> parseHttpDate(std::string_view text);

}  // namespace nembra
