#include "api/http_response_freshness.h"

#include <cctype>
#include <limits>
#include <string>
#include <vector>

namespace nembra {

namespace {

std::string trimmedLowerCase(const std::string& text) {
  size_t first = 0;
  size_t last = text.size();
  while (first < last && std::isspace(static_cast<unsigned char>(text[first]))) ++first;
  while (last > first && std::isspace(static_cast<unsigned char>(text[last - 1]))) --last;
  std::string result = text.substr(first, last - first);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

std::vector<std::string> split(const std::string& text, const std::string& separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    size_t found = text.find(separator, start);
    if (found == std::string::npos) break;
    parts.push_back(text.substr(start, found - start));
    start = found + separator.size();
  }
  parts.push_back(text.substr(start));
  return parts;
}

// The leading integer as a string scanner reads it: blanks, an optional sign, digits; 0 when
// there are none, saturated when too large.
int64_t integerValue(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  int64_t value = 0;
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    int digit = text[i] - '0';
    if (value > (kMax - digit) / 10) return negative ? std::numeric_limits<int64_t>::min() : kMax;
    value = value * 10 + digit;
  }
  return negative ? -value : value;
}

// Every "Cache-Control" line, joined as one list, the way repeated headers are merged.
std::optional<std::string> cacheControl(const HttpResponse& response) {
  std::optional<std::string> joined;
  for (const auto& [name, value] : response.headers) {
    if (trimmedLowerCase(name) != "cache-control") continue;
    joined = joined ? *joined + "," + value : value;
  }
  return joined;
}

}  // namespace

std::optional<int64_t> HttpResponseFreshness::findMaxAge(const HttpResponse& response) {
  return findMaxAge(response, std::chrono::system_clock::now());
}

std::optional<int64_t> HttpResponseFreshness::findMaxAge(
    const HttpResponse& response, std::chrono::system_clock::time_point now) {
  std::optional<int64_t> maxAge;
  if (auto header = cacheControl(response)) {
    for (const std::string& raw : split(*header, ",")) {
      std::string directive = trimmedLowerCase(raw);
      if (directive == "no-store" || directive == "must-revalidate" || directive == "no-cache") {
        break;
      }
      std::vector<std::string> parts = split(directive, "max-age=");
      if (parts.size() == 2) maxAge = integerValue(parts[1]);
    }
  }
  if (!maxAge) {
    if (auto expires = response.header("Expires")) {
      if (auto date = RFC7231PreferredDateFormatter().dateFromString(*expires)) {
        auto seconds = std::chrono::duration_cast<std::chrono::seconds>(*date - now).count();
        maxAge = seconds > 0 ? seconds : 0;
      }
    }
  }
  return maxAge;
}

const HttpDateFormatter& HttpResponseFreshness::RFC7231PreferredDateFormatter() {
  static const HttpDateFormatter formatter;
  return formatter;
}

}  // namespace nembra
