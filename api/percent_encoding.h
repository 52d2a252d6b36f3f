// Percent-encoding with the character sets the service's clients have always used. Both sets
// leave '&' and '=' (and more) as they are, which is why a value holding them changes the
// meaning of a query or form body: kept, the service relies on receiving exactly these bytes.
#pragma once

#include <string>
#include <string_view>

namespace nembra {

enum class PercentEncodingSet {
  // Letters, digits and !$&'()*+,-./:;=?@_~
  UrlQueryAllowed,
  // Letters, digits and !$&'()*+,-.:;=[]_~
  UrlHostAllowed,
};

// Encodes every byte outside |set| as %XX (upper-case hex), UTF-8 bytes one by one.
std::string percentEncode(std::string_view text, PercentEncodingSet set);

// |text| as one URL path segment: every byte but letters, digits and -._~ encoded, and a
// segment of only dots ("." or "..") encoded whole, so no token can step out of its place in a
// path once the URL is normalised.
std::string percentEncodePathSegment(std::string_view text);

// The value of a hexadecimal digit of either case, or -1 for any other character.
constexpr int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace nembra
