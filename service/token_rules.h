// What a token may look like, and how new ones are made. Tokens become directory names under the
// data directory, so only a narrow alphabet is ever accepted: no dots, slashes, NULs or escapes.
#pragma once

#include <string>
#include <string_view>

namespace nembra {

// 1 to 128 characters of A-Z, a-z, 0-9, '_' and '-'.
bool isSafeToken(std::string_view token);

// |prefix| followed by |length| random letters and digits from the system's secure generator.
std::string newToken(std::string_view prefix, size_t length = 20);

// |bytes| random bytes as lower-case hex.
std::string randomHex(size_t bytes);

}  // namespace nembra
