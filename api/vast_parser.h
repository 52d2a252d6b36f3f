// Reads a VAST document (versions 2, 3 and 4) into VastDocument with pugixml. Only the parts a
// linear pre-roll needs are read: ads (inline or wrapper), impressions, error URLs, the first
// linear creative's tracking, media files, duration and skip offset. Unknown elements are
// ignored; URLs are trimmed of surrounding blanks (CDATA sections commonly carry them).
//
// Threading: stateless; any thread.
#pragma once

#include <string_view>
#include <variant>

#include "api/vast_format.h"

namespace nembra {

struct VastParseFailure {
  VastErrorCode code = VastErrorCode::XmlParse;
  std::string message;
};

class VastParser {
 public:
  static std::variant<VastDocument, VastParseFailure> parse(std::string_view xml);

  // "HH:MM:SS" or "HH:MM:SS.mmm" in seconds; nothing when malformed.
  static std::optional<double> parseClock(std::string_view text);
  // A skip offset: a clock value, or "n%" of |duration|.
  static std::optional<double> parseOffset(std::string_view text, double duration);
};

}  // namespace nembra
