#include "api/percent_encoding.h"

#include <cctype>

namespace nembra {

namespace {

bool isAllowed(unsigned char c, PercentEncodingSet set) {
  if (std::isalnum(c) && c < 0x80) return true;
  std::string_view extra =
      set == PercentEncodingSet::UrlQueryAllowed ? "!$&'()*+,-./:;=?@_~" : "!$&'()*+,-.:;=[]_~";
  return extra.find(static_cast<char>(c)) != std::string_view::npos;
}

}  // namespace

std::string percentEncode(std::string_view text, PercentEncodingSet set) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (isAllowed(c, set)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  return out;
}

std::string percentEncodePathSegment(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  const bool onlyDots = !text.empty() && text.find_first_not_of('.') == std::string_view::npos;
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    bool plain = (std::isalnum(c) && c < 0x80) || c == '-' || c == '_' || c == '~' ||
                 (c == '.' && !onlyDots);
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  return out;
}

}  // namespace nembra
