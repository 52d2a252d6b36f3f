// The small text rules of HTTP header values that the service's parsers share.
#pragma once

#include <string>
#include <string_view>

namespace nembra {

// |text| without the optional whitespace (spaces and tabs) around it.
inline std::string_view trimHttpSpace(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// |text| with ASCII letters in lower case (names and tokens compare without regard to case).
inline std::string asciiLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

}  // namespace nembra
