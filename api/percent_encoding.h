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

}  // namespace nembra
