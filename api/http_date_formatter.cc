#include "api/http_date_formatter.h"

#include <array>
#include <cctype>
#include <cstdio>

namespace nembra {

namespace {

constexpr std::array<const char*, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 7> kFullDays = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                  "Thursday", "Friday", "Saturday"};
constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

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

std::optional<HttpDateFormatter::TimePoint> HttpDateFormatter::dateFromString(
    std::string_view text) const {
  Cursor cursor(text);
  cursor.skipSpaces();
  if (!readDayName(cursor) || !cursor.literal(',')) return std::nullopt;
  cursor.skipSpaces();
  int day = 0;
  int monthIndex = -1;
  int year = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int offset = 0;
  if (!cursor.number(1, 2, day)) return std::nullopt;
  cursor.skipSpaces();
  for (size_t i = 0; i < kMonths.size() && monthIndex < 0; ++i) {
    if (cursor.word(kMonths[i])) monthIndex = static_cast<int>(i);
  }
  if (monthIndex < 0) return std::nullopt;
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
  if (hour > 23 || minute > 59 || second > 60) return std::nullopt;

  using namespace std::chrono;
  year_month_day date{std::chrono::year(year), month(static_cast<unsigned>(monthIndex + 1)),
                      std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) return std::nullopt;
  TimePoint point = sys_days(date);
  point += hours(hour) + minutes(minute) + seconds(second) - seconds(offset);
  return point;
}

std::string HttpDateFormatter::stringFromDate(TimePoint date) const {
  using namespace std::chrono;
  auto whole = floor<seconds>(date);
  auto dayPoint = floor<days>(whole);
  year_month_day ymd(dayPoint);
  hh_mm_ss time(whole - dayPoint);
  weekday weekdayOf(dayPoint);
  char text[64];
  std::snprintf(text, sizeof(text), "%s, %u %s %04d %02d:%02d:%02d +0000",
                kDays[weekdayOf.c_encoding()], static_cast<unsigned>(ymd.day()),
                kMonths[static_cast<unsigned>(ymd.month()) - 1], static_cast<int>(ymd.year()),
                static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                static_cast<int>(time.seconds().count()));
  return text;
}

}  // namespace nembra
