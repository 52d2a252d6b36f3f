// Signs the browser-style POST form handed out with an upload URL: a base64 policy naming the
// bucket, the object key, the content type, the size range and the credentials, and its SigV4
// signature. The form's field names are the ones the SDK's MediaFields model carries.
//
// Threading: immutable after construction; any thread.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "service/sigv4_signing.h"

namespace nembra {

struct StorageUploadRequest {
  std::string key;          // the object key
  std::string contentType;  // signed as the exact "Content-Type" field
  int64_t maxBytes = 0;     // content-length-range is 1 to maxBytes
  int64_t now = 0;          // Unix seconds of signing
  int64_t expires = 0;      // Unix seconds the policy expires
};

class StoragePolicySigner {
 public:
  StoragePolicySigner(StorageCredentials credentials, std::string bucket, std::string storageUrl);

  // {"url": storage URL, "fields": {key, Content-Type, bucket, X-Amz-Algorithm,
  // X-Amz-Credential, X-Amz-Date, X-Amz-Security-Token, Policy, X-Amz-Signature}}.
  nlohmann::ordered_json sign(const StorageUploadRequest& request) const;

  const std::string& bucket() const { return bucket_; }
  const std::string& storageUrl() const { return storageUrl_; }

 private:
  const StorageCredentials credentials_;
  const std::string bucket_;
  const std::string storageUrl_;
};

}  // namespace nembra
