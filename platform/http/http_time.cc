#include "platform/http/http_time.h"

#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace nembra {
namespace {

// Spelled out: strftime's %a and %b would follow the process locale.
constexpr std::array<const char*, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 7> kFullDays = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                  "Thursday", "Friday", "Saturday"};
constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

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

// Absent for a day the month does not have.
std::optional<int64_t> fromParts(int year, int month, int day, int hour, int minute, int second) {
  if (month < 1 || month > 12 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  using namespace std::chrono;
  year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                      std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) return std::nullopt;
  return sys_days(date).time_since_epoch() / seconds(1) + hour * 3600 + minute * 60 + second;
}

// A cursor over the text; every read leaves it unchanged when it fails.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : text_(text) {}

  bool atEnd() const { return position_ == text_.size(); }
  void skipSpaces() {
    while (position_ < text_.size() && text_[position_] == ' ') ++position_;
  }
  bool literal(char c) {
    if (position_ >= text_.size() || text_[position_] != c) return false;
    ++position_;
    return true;
  }
  bool word(std::string_view expected) {
    if (text_.size() - position_ < expected.size()) return false;
    for (size_t i = 0; i < expected.size(); ++i) {
      if (std::tolower(static_cast<unsigned char>(text_[position_ + i])) !=
          std::tolower(static_cast<unsigned char>(expected[i]))) {
        return false;
      }
    }
    position_ += expected.size();
    return true;
  }
  // Between |minDigits| and |maxDigits| decimal digits.
  bool number(size_t minDigits, size_t maxDigits, int& value) {
    size_t start = position_;
    int result = 0;
    while (position_ < text_.size() && position_ - start < maxDigits &&
           std::isdigit(static_cast<unsigned char>(text_[position_]))) {
      result = result * 10 + (text_[position_] - '0');
      ++position_;
    }
    if (position_ - start < minDigits) {
      position_ = start;
      return false;
    }
    value = result;
    return true;
  }

 private:
  std::string_view text_;
  size_t position_ = 0;
};

bool readDayName(Cursor& cursor) {
  // The full name first: "Sun" is a prefix of "Sunday".
  for (const char* day : kFullDays) {
    if (cursor.word(day)) return true;
  }
  for (const char* day : kDays) {
    if (cursor.word(day)) return true;
  }
  return false;
}

// Seconds east of UTC.
bool readZone(Cursor& cursor, int& offsetSeconds) {
  for (const char* name : {"GMT", "UTC", "UT", "Z"}) {
    if (cursor.word(name)) {
      offsetSeconds = 0;
      return true;
    }
  }
  int sign = 0;
  if (cursor.literal('+')) {
    sign = 1;
  } else if (cursor.literal('-')) {
    sign = -1;
  } else {
    return false;
  }
  int hours = 0;
  int minutes = 0;
  if (!cursor.number(2, 2, hours)) return false;
  cursor.literal(':');
  if (!cursor.number(2, 2, minutes) || hours > 23 || minutes > 59) return false;
  offsetSeconds = sign * (hours * 3600 + minutes * 60);
  return true;
}

}  // namespace

int64_t unixNow() { return static_cast<int64_t>(std::time(nullptr)); }

std::string formatIso8601(int64_t unixSeconds) {
  return format(unixSeconds, "%Y-%m-%dT%H:%M:%S.000Z");
}

std::string formatAmzDate(int64_t unixSeconds) { return format(unixSeconds, "%Y%m%dT%H%M%SZ"); }

std::string formatHttpDate(int64_t unixSeconds, HttpDateStyle style) {
  std::tm parts = utc(unixSeconds);
  const bool imf = style == HttpDateStyle::kImfFixdate;
  char text[48];
  std::snprintf(text, sizeof(text),
                imf ? "%s, %02d %s %04d %02d:%02d:%02d %s" : "%s, %d %s %04d %02d:%02d:%02d %s",
                kDays[static_cast<size_t>(parts.tm_wday)], parts.tm_mday,
                kMonths[static_cast<size_t>(parts.tm_mon)], parts.tm_year + 1900, parts.tm_hour,
                parts.tm_min, parts.tm_sec, imf ? "GMT" : "+0000");
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
  Cursor cursor(text);
  cursor.skipSpaces();
  if (!readDayName(cursor) || !cursor.literal(',')) return std::nullopt;
  cursor.skipSpaces();
  int day = 0;
  int month = 0;
  int year = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int offset = 0;
  if (!cursor.number(1, 2, day)) return std::nullopt;
  cursor.skipSpaces();
  for (size_t i = 0; i < kMonths.size() && month == 0; ++i) {
    if (cursor.word(kMonths[i])) month = static_cast<int>(i) + 1;
  }
  if (month == 0) return std::nullopt;
  cursor.skipSpaces();
  if (!cursor.number(4, 4, year)) return std::nullopt;
  cursor.skipSpaces();
  if (!cursor.number(2, 2, hour) || !cursor.literal(':') || !cursor.number(2, 2, minute) ||
      !cursor.literal(':') || !cursor.number(2, 2, second)) {
    return std::nullopt;
  }
  cursor.skipSpaces();
  if (!readZone(cursor, offset)) return std::nullopt;
  cursor.skipSpaces();
  if (!cursor.atEnd()) return std::nullopt;
  auto point = fromParts(year, month, day, hour, minute, second);
  if (!point) return std::nullopt;
  return *point - offset;
}

}  // namespace nembra
