#include "playback/web_vtt.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace nembra {

namespace {

// Times come from the service's JSON: a fractional or out-of-range number is clamped to what
// the cue lines can show (under 100 hours) rather than converted out of range.
int64_t milliseconds(const Json& value) {
  constexpr int64_t kLargest = 100LL * 3600 * 1000 - 1;
  int64_t result = 0;
  if (value.is_number_integer()) {
    result = value.is_number_unsigned() && value.get<uint64_t>() > uint64_t{kLargest}
                 ? kLargest
                 : value.get<int64_t>();
  } else if (value.is_number_float()) {
    const double number = value.get<double>();
    if (std::isnan(number)) return 0;
    result = static_cast<int64_t>(std::clamp(number, 0.0, static_cast<double>(kLargest)));
  } else if (value.is_string()) {
    result = std::strtoll(value.get<std::string>().c_str(), nullptr, 10);
  }
  return std::clamp<int64_t>(result, 0, kLargest);
}

std::optional<double> parseTimestamp(const std::string& text) {
  int hours = 0, minutes = 0, seconds = 0, millis = 0;
  if (std::sscanf(text.c_str(), "%d:%d:%d.%d", &hours, &minutes, &seconds, &millis) == 4) {
    return hours * 3600.0 + minutes * 60.0 + seconds + millis / 1000.0;
  }
  if (std::sscanf(text.c_str(), "%d:%d.%d", &minutes, &seconds, &millis) == 3) {
    return minutes * 60.0 + seconds + millis / 1000.0;
  }
  return std::nullopt;
}

}  // namespace

std::string WebVtt::render(const Json& words, const Json& times) {
  std::string text = "WEBVTT\n\n";
  if (!words.is_array() || !times.is_array()) return text;
  for (size_t i = 0; i < words.size() && i < times.size(); ++i) {
    const Json& time = times[i];
    if (!time.is_object()) continue;
    const int64_t start = milliseconds(time.value("start", Json()));
    const int64_t end = milliseconds(time.value("end", Json()));
    char line[96];
    std::snprintf(line, sizeof(line), "%02d:%02d:%02d.%03d --> %02d:%02d:%02d.%03d\n",
                  static_cast<int>(start / 3600000), static_cast<int>(start / 60000 % 60),
                  static_cast<int>(start / 1000 % 60), static_cast<int>(start % 1000),
                  static_cast<int>(end / 3600000), static_cast<int>(end / 60000 % 60),
                  static_cast<int>(end / 1000 % 60), static_cast<int>(end % 1000));
    text += line;
    text += words[i].is_string() ? words[i].get<std::string>() : words[i].dump();
    text += "\n\n";
  }
  return text;
}

std::vector<WebVttCue> WebVtt::parse(const std::string& text) {
  std::vector<WebVttCue> cues;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    size_t arrow = line.find(" --> ");
    if (arrow == std::string::npos) continue;
    auto start = parseTimestamp(line.substr(0, arrow));
    auto end = parseTimestamp(line.substr(arrow + 5));
    std::string body;
    while (std::getline(in, line) && !line.empty()) {
      if (!body.empty()) body += "\n";
      body += line;
    }
    if (start && end && *end >= *start) cues.push_back({*start, *end, body});
  }
  return cues;
}

std::optional<std::string> WebVtt::cueAt(const std::vector<WebVttCue>& cues, double seconds) {
  for (const WebVttCue& cue : cues) {
    if (cue.start <= seconds && seconds < cue.end) return cue.text;
  }
  return std::nullopt;
}

}  // namespace nembra
