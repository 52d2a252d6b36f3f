// Checks a browser-style POST upload form before its file is accepted, the way S3 does: the
// SigV4 signature over the base64 policy with the service's secret, the credential scope, the
// policy's expiration, and each condition (exact and starts-with matches, content-length-range),
// and that every posted field is covered by a condition. Refusals carry S3's error codes.
//
// Threading: immutable after construction; any thread.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "service/sigv4_signing.h"

namespace nembra {

// An S3-style refusal: HTTP status, error code ("AccessDenied", "SignatureDoesNotMatch", …) and
// message.
struct StorageError {
  int status = 403;
  std::string code;
  std::string message;
};

// What a verified policy allows.
struct StoragePolicyGrant {
  std::string key;
  std::string contentType;
  int64_t minBytes = 0;
  int64_t maxBytes = std::numeric_limits<int64_t>::max();
};

class StoragePolicyVerifier {
 public:
  explicit StoragePolicyVerifier(StorageCredentials credentials);

  // |fields| are the form fields before the file part, in posted order; |bucket| the one named
  // by the URL; |now| Unix seconds.
  std::optional<StorageError> verify(const std::vector<std::pair<std::string, std::string>>& fields,
                                     const std::string& bucket, int64_t now,
                                     StoragePolicyGrant& grant) const;

 private:
  const StorageCredentials credentials_;
};

}  // namespace nembra
