#include "service/sigv4_signing.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

namespace nembra {

std::string hmacSha256(std::string_view key, std::string_view data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(data.data()), data.size(), out, &length);
  return std::string(reinterpret_cast<char*>(out), length);
}

std::string sha256(std::string_view data) {
  unsigned char out[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), out);
  return std::string(reinterpret_cast<char*>(out), sizeof(out));
}

std::string toHex(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    text.push_back(kHex[b >> 4]);
    text.push_back(kHex[b & 15]);
  }
  return text;
}

std::string sigv4SigningKey(const std::string& secret, const std::string& date,
                            const std::string& region, const std::string& service) {
  std::string key = hmacSha256("AWS4" + secret, date);
  key = hmacSha256(key, region);
  key = hmacSha256(key, service);
  return hmacSha256(key, "aws4_request");
}

std::string sigv4PolicySignature(const StorageCredentials& credentials, const std::string& date,
                                 std::string_view base64Policy) {
  std::string key =
      sigv4SigningKey(credentials.secret, date, credentials.region, credentials.service);
  return toHex(hmacSha256(key, base64Policy));
}

std::string base64Encode(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t v = (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8) | uint8_t(bytes[i + 2]);
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], kAlphabet[(v >> 6) & 63],
            kAlphabet[v & 63]};
  }
  if (bytes.size() - i == 1) {
    uint32_t v = uint8_t(bytes[i]) << 16;
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], '=', '='};
  } else if (bytes.size() - i == 2) {
    uint32_t v = (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8);
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], kAlphabet[(v >> 6) & 63], '='};
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    bool last = i + 4 == text.size();
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
      int d = value(c);
      if (d < 0) return std::nullopt;
      v = (v << 6) | static_cast<uint32_t>(d);
    }
    out.push_back(static_cast<char>(v >> 16));
    if (padding < 2) out.push_back(static_cast<char>((v >> 8) & 255));
    if (padding < 1) out.push_back(static_cast<char>(v & 255));
  }
  return out;
}

bool constantTimeEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace nembra
