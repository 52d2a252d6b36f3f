#include "streaming/uri.h"

#include <climits>

namespace nembra {

namespace {

// atoi's reading (leading blanks, a sign, digits up to the first non-digit) without its
// undefined behaviour on overflow: out-of-range values saturate.
int ReadPort(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) {
    ++i;
  }
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  long long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > INT_MAX) {
      return negative ? INT_MIN : INT_MAX;
    }
  }
  return static_cast<int>(negative ? -value : value);
}

// Moves what follows the last |delimiter| out of |rest|; |keepDelimiter| keeps it in front.
std::string CutFromLast(std::string_view& rest, std::string_view delimiter, bool keepDelimiter) {
  const size_t at = rest.rfind(delimiter);
  if (at == std::string_view::npos) {
    return {};
  }
  std::string part(rest.substr(keepDelimiter ? at : at + delimiter.size()));
  rest = rest.substr(0, at);
  return part;
}

}  // namespace

Uri Uri::Parse(std::string_view text) {
  Uri uri;
  std::string_view rest = text;
  uri.fragment = CutFromLast(rest, "#", true);
  uri.query = CutFromLast(rest, "?", true);
  if (const size_t at = rest.find("://"); at != std::string_view::npos) {
    uri.scheme = rest.substr(0, at);
    rest = rest.substr(at + 3);
  }
  if (const size_t at = rest.rfind('@'); at != std::string_view::npos) {
    uri.userInfo = rest.substr(0, at);
    rest = rest.substr(at + 1);
  }
  if (const size_t at = rest.find('/'); at != std::string_view::npos) {
    uri.path = rest.substr(at);
    rest = rest.substr(0, at);
  }
  if (const size_t at = rest.rfind(':'); at != std::string_view::npos) {
    uri.port = ReadPort(rest.substr(at + 1));
    rest = rest.substr(0, at);
  }
  uri.host = rest;
  return uri;
}

std::string Uri::ToString() const {
  std::string text;
  if (!scheme.empty()) {
    text += scheme + "://";
  }
  if (!userInfo.empty()) {
    text += userInfo + "@";
  }
  text += host;
  if (port != 0) {
    text += ":" + std::to_string(port);
  }
  text += path;
  text += query;
  text += fragment;
  return text;
}

std::vector<std::string> Uri::GetSegments() const {
  std::vector<std::string> segments;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) {
      end = path.size();
    }
    if (end > start) {
      segments.push_back(path.substr(start, end - start));
    }
    start = end + 1;
  }
  return segments;
}

}  // namespace nembra
