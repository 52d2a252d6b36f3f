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

bool constantTimeEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace nembra
