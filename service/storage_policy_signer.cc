#include "service/storage_policy_signer.h"

#include "platform/http/base64.h"
#include "platform/http/http_time.h"
#include "service/token_rules.h"

namespace nembra {

StoragePolicySigner::StoragePolicySigner(StorageCredentials credentials, std::string bucket,
                                         std::string storageUrl)
    : credentials_(std::move(credentials)),
      bucket_(std::move(bucket)),
      storageUrl_(std::move(storageUrl)) {}

nlohmann::ordered_json StoragePolicySigner::sign(const StorageUploadRequest& request) const {
  std::string amzDate = formatAmzDate(request.now);
  std::string date = amzDate.substr(0, 8);
  std::string credential = credentials_.accessKeyId + "/" + date + "/" + credentials_.region + "/" +
                           credentials_.service + "/aws4_request";
  // Stands in for the temporary-credential token a hosted store would issue; signed into the
  // policy, so a form cannot be replayed with another.
  std::string securityToken = randomHex(24);

  nlohmann::ordered_json policy;
  policy["expiration"] = formatIso8601(request.expires);
  policy["conditions"] = nlohmann::ordered_json::array({
      {{"bucket", bucket_}},
      {{"key", request.key}},
      {{"Content-Type", request.contentType}},
      {"content-length-range", 1, request.maxBytes},
      {{"x-amz-algorithm", "AWS4-HMAC-SHA256"}},
      {{"x-amz-credential", credential}},
      {{"x-amz-date", amzDate}},
      {{"x-amz-security-token", securityToken}},
  });
  std::string encodedPolicy = base64Encode(policy.dump());

  nlohmann::ordered_json fields;
  fields["key"] = request.key;
  fields["Content-Type"] = request.contentType;
  fields["bucket"] = bucket_;
  fields["X-Amz-Algorithm"] = "AWS4-HMAC-SHA256";
  fields["X-Amz-Credential"] = credential;
  fields["X-Amz-Date"] = amzDate;
  fields["X-Amz-Security-Token"] = securityToken;
  fields["Policy"] = encodedPolicy;
  fields["X-Amz-Signature"] = sigv4PolicySignature(credentials_, date, encodedPolicy);

  nlohmann::ordered_json form;
  form["url"] = storageUrl_;
  form["fields"] = std::move(fields);
  return form;
}

}  // namespace nembra
