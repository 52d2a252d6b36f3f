// The form of a URL that error messages and reports show: scheme, host, port and path, never
// the query, fragment or user info, which carry sessions, tokens and signed policies.
//
// Threading: stateless; any thread.
#pragma once

#include <string>
#include <string_view>

namespace nembra {

// "https://host:port/path" of |url|; a text without a scheme keeps everything before its
// first '?' or '#'.
std::string redactUrl(std::string_view url);

}  // namespace nembra
