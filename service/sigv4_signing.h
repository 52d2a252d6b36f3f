// The pieces of AWS Signature Version 4 that browser-style POST uploads use: the derived signing
// key, HMAC-SHA256 and hex. The storage endpoint signs its forms with them and checks
// posted forms with the same chain, so any S3-compatible client works against it.
#pragma once

#include <string>
#include <string_view>

namespace nembra {

// Who signs: the access key id names the secret; region and service complete the scope.
struct StorageCredentials {
  std::string accessKeyId;
  std::string secret;
  std::string region = "us-east-1";
  std::string service = "s3";
};

// Raw 32-byte HMAC-SHA256 of |data| under |key|.
std::string hmacSha256(std::string_view key, std::string_view data);
std::string sha256(std::string_view data);
std::string toHex(std::string_view bytes);

// HMAC chain "AWS4" + secret -> date (YYYYMMDD) -> region -> service -> "aws4_request".
std::string sigv4SigningKey(const std::string& secret, const std::string& date,
                            const std::string& region, const std::string& service);

// The hex signature of a base64 policy document.
std::string sigv4PolicySignature(const StorageCredentials& credentials, const std::string& date,
                                 std::string_view base64Policy);

bool constantTimeEquals(std::string_view a, std::string_view b);

}  // namespace nembra
