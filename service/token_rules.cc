#include "service/token_rules.h"

#include <openssl/rand.h>

#include <random>
#include <vector>

namespace nembra {
namespace {

// RAND_bytes only fails when the system has no entropy source at all; std::random_device reads
// the same kernel source then.
void fillRandom(unsigned char* out, size_t count) {
  if (RAND_bytes(out, static_cast<int>(count)) == 1) return;
  std::random_device device;
  for (size_t i = 0; i < count; ++i) out[i] = static_cast<unsigned char>(device());
}

}  // namespace

bool isSafeToken(std::string_view token) {
  if (token.empty() || token.size() > 128) return false;
  for (char c : token) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

std::string newToken(std::string_view prefix, size_t length) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::string token(prefix);
  std::vector<unsigned char> bytes(length * 2);
  while (token.size() < prefix.size() + length) {
    fillRandom(bytes.data(), bytes.size());
    for (unsigned char b : bytes) {
      // 248 = 62 * 4: values above it would favour the first letters.
      if (b >= 248) continue;
      token.push_back(kAlphabet[b % 62]);
      if (token.size() == prefix.size() + length) break;
    }
  }
  return token;
}

std::string randomHex(size_t bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::vector<unsigned char> raw(bytes);
  fillRandom(raw.data(), raw.size());
  std::string text;
  text.reserve(bytes * 2);
  for (unsigned char b : raw) {
    text.push_back(kHex[b >> 4]);
    text.push_back(kHex[b & 15]);
  }
  return text;
}

}  // namespace nembra
