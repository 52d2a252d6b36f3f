#include "platform/http/base64.h"

#include <cstdint>

namespace nembra {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The six bits of |c|, or -1; |urlSafe| also takes "-" and "_".
int sextet(char c, bool urlSafe) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+' || (urlSafe && c == '-')) return 62;
  if (c == '/' || (urlSafe && c == '_')) return 63;
  return -1;
}

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  auto byte = [&](size_t at) { return static_cast<uint32_t>(static_cast<uint8_t>(bytes[at])); };
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t v = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], kAlphabet[(v >> 6) & 63],
            kAlphabet[v & 63]};
  }
  if (bytes.size() - i == 1) {
    uint32_t v = byte(i) << 16;
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], '=', '='};
  } else if (bytes.size() - i == 2) {
    uint32_t v = byte(i) << 16 | byte(i + 1) << 8;
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], kAlphabet[(v >> 6) & 63], '='};
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    int padding = 0;
    uint32_t v = 0;
    for (size_t j = 0; j < 4; ++j) {
      char c = text[i + j];
      if (c == '=') {
        // Padding only in the last quartet, only in its last two places, and only at the end.
        if (!last || j < 2) return std::nullopt;
        ++padding;
        v <<= 6;
        continue;
      }
      if (padding > 0) return std::nullopt;
      int d = sextet(c, false);
      if (d < 0) return std::nullopt;
      v = v << 6 | static_cast<uint32_t>(d);
    }
    out.push_back(static_cast<char>(v >> 16));
    if (padding < 2) out.push_back(static_cast<char>((v >> 8) & 255));
    if (padding < 1) out.push_back(static_cast<char>(v & 255));
  }
  return out;
}

std::optional<std::string> base64DecodeLoose(std::string_view text) {
  std::string out;
  out.reserve(text.size() / 4 * 3 + 2);
  uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    if (c == '=' || c == '\n' || c == '\r') continue;
    int d = sextet(c, true);
    if (d < 0) return std::nullopt;
    buffer = buffer << 6 | static_cast<uint32_t>(d);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((buffer >> bits) & 0xFF);
    }
  }
  return out;
}

}  // namespace nembra
