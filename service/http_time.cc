#include "service/http_time.h"

#include <cstdio>
#include <ctime>

namespace nembra {
namespace {

std::tm utc(int64_t unixSeconds) {
  std::time_t t = static_cast<std::time_t>(unixSeconds);
  std::tm parts{};
  gmtime_r(&t, &parts);
  return parts;
}

std::string format(int64_t unixSeconds, const char* pattern) {
  std::tm parts = utc(unixSeconds);
  char text[64];
  size_t n = std::strftime(text, sizeof(text), pattern, &parts);
  return std::string(text, n);
}

bool digits(std::string_view text, size_t at, size_t count, int& value) {
  if (at + count > text.size()) return false;
  value = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    value = value * 10 + (text[i] - '0');
  }
  return true;
}

std::optional<int64_t> fromParts(int year, int month, int day, int hour, int minute, int second) {
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
    return std::nullopt;
  }
  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  return static_cast<int64_t>(timegm(&parts));
}

}  // namespace

int64_t unixNow() { return static_cast<int64_t>(std::time(nullptr)); }

std::string formatIso8601(int64_t unixSeconds) {
  return format(unixSeconds, "%Y-%m-%dT%H:%M:%S.000Z");
}

std::string formatAmzDate(int64_t unixSeconds) { return format(unixSeconds, "%Y%m%dT%H%M%SZ"); }

std::string formatHttpDate(int64_t unixSeconds) {
  // Names spelled out: strftime's %a and %b would follow the process locale.
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm parts = utc(unixSeconds);
  char text[40];
  std::snprintf(text, sizeof(text), "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[parts.tm_wday],
                parts.tm_mday, kMonths[parts.tm_mon], parts.tm_year + 1900, parts.tm_hour,
                parts.tm_min, parts.tm_sec);
  return text;
}

std::optional<int64_t> parseIso8601(std::string_view text) {
  int year, month, day, hour, minute, second;
  if (!digits(text, 0, 4, year) || text.size() < 20 || text[4] != '-' ||
      !digits(text, 5, 2, month) || text[7] != '-' || !digits(text, 8, 2, day) || text[10] != 'T' ||
      !digits(text, 11, 2, hour) || text[13] != ':' || !digits(text, 14, 2, minute) ||
      text[16] != ':' || !digits(text, 17, 2, second)) {
    return std::nullopt;
  }
  size_t at = 19;
  if (at < text.size() && text[at] == '.') {
    ++at;
    size_t start = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    if (at == start) return std::nullopt;
  }
  if (at + 1 != text.size() || text[at] != 'Z') return std::nullopt;
  return fromParts(year, month, day, hour, minute, second);
}

std::optional<int64_t> parseAmzDate(std::string_view text) {
  int year, month, day, hour, minute, second;
  if (text.size() != 16 || !digits(text, 0, 4, year) || !digits(text, 4, 2, month) ||
      !digits(text, 6, 2, day) || text[8] != 'T' || !digits(text, 9, 2, hour) ||
      !digits(text, 11, 2, minute) || !digits(text, 13, 2, second) || text[15] != 'Z') {
    return std::nullopt;
  }
  return fromParts(year, month, day, hour, minute, second);
}

std::optional<int64_t> parseHttpDate(std::string_view text) {
  static constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  // "Wed, 01 May 2024 12:00:00 GMT"
  int day, year, hour, minute, second;
  if (text.size() != 29 || text[3] != ',' || text[4] != ' ' || !digits(text, 5, 2, day) ||
      text[7] != ' ' || text[11] != ' ' || !digits(text, 12, 4, year) || text[16] != ' ' ||
      !digits(text, 17, 2, hour) || text[19] != ':' || !digits(text, 20, 2, minute) ||
      text[22] != ':' || !digits(text, 23, 2, second) || text.substr(25) != " GMT") {
    return std::nullopt;
  }
  size_t month = kMonths.find(text.substr(8, 3));
  if (month == std::string_view::npos || month % 3 != 0) return std::nullopt;
  return fromParts(year, static_cast<int>(month / 3) + 1, day, hour, minute, second);
}

}  // namespace nembra
