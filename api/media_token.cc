#include "api/media_token.h"

#include <cstdio>

namespace nembra {

bool MediaToken::isSafe(std::string_view token) {
  if (token.empty() || token.size() > kMaxLength || token.front() == '.') return false;
  if (token.find("..") != std::string_view::npos) return false;
  for (char c : token) {
    bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    bool digit = c >= '0' && c <= '9';
    if (!letter && !digit && c != '_' && c != '-' && c != '.') return false;
  }
  return true;
}

OptionalError MediaToken::check(std::string_view token, const std::string& what) {
  if (isSafe(token)) return std::nullopt;
  if (token.empty()) return Error::invalidArgument("the " + what + " is empty");
  // Shown escaped: the token may hold NUL or control bytes.
  std::string shown;
  for (char c : token.substr(0, 64)) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7F || c == '"' || c == '\\') {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\x%02X", byte);
      shown += escaped;
    } else {
      shown += c;
    }
  }
  if (token.size() > 64) shown += "...";
  return Error::invalidArgument("the " + what + " \"" + shown +
                                "\" is not a valid token (letters, digits, '_', '-' and '.' only, "
                                "no \"..\", at most " +
                                std::to_string(kMaxLength) + " characters)");
}

}  // namespace nembra
