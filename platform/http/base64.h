// Base64 of RFC 4648, for signed form policies and MIME bodies.
//
// Threading: pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace nembra {

// The standard alphabet, padded with "=".
std::string base64Encode(std::string_view bytes);

// Strict: the standard alphabet only, a length that is a multiple of four, and "=" only as the
// last one or two characters. Absent otherwise; a signature checked over the text must not
// accept two spellings of the same bytes.
std::optional<std::string> base64Decode(std::string_view text);

// Forgiving, for text handed over by a peer: either alphabet (standard or URL-safe), with or
// without padding, line breaks ignored. Absent on any other character.
std::optional<std::string> base64DecodeLoose(std::string_view text);

}  // namespace nembra
