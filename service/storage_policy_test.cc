#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "platform/http/base64.h"
#include "platform/http/http_time.h"
#include "service/sigv4_signing.h"
#include "service/storage_policy_signer.h"
#include "service/storage_policy_verifier.h"

namespace nembra {
namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

constexpr int64_t kNow = 1714564800;  // 2024-05-01T12:00:00Z

StorageCredentials credentials(const std::string& secret = "s3cr3t") {
  StorageCredentials c;
  c.accessKeyId = "NMBRTESTKEY";
  c.secret = secret;
  return c;
}

Fields signedForm(const std::string& key = "applications/app/videos/v/streams/s/video.mp4") {
  StoragePolicySigner signer(credentials(), "nembra-media", "http://127.0.0.1/storage/b");
  StorageUploadRequest request{key, "video/mp4", 1000, kNow, kNow + 3600};
  auto form = signer.sign(request);
  Fields fields;
  for (const auto& [name, value] : form["fields"].items()) {
    fields.emplace_back(name, value.get<std::string>());
  }
  return fields;
}

void set(Fields& fields, const std::string& name, const std::string& value) {
  for (auto& field : fields) {
    if (field.first == name) {
      field.second = value;
      return;
    }
  }
  fields.emplace_back(name, value);
}

void drop(Fields& fields, const std::string& name) {
  std::erase_if(fields, [&](const auto& field) { return field.first == name; });
}

// Re-signs |fields| after the policy was replaced, as a client holding the secret could.
void resignWithPolicy(Fields& fields, const nlohmann::json& policy, const std::string& secret) {
  std::string encoded = base64Encode(policy.dump());
  set(fields, "Policy", encoded);
  set(fields, "X-Amz-Signature", sigv4PolicySignature(credentials(secret), "20240501", encoded));
}

TEST(Sigv4SigningTest, DerivesTheDocumentedSigningKey) {
  // The worked example of the Signature Version 4 documentation.
  std::string key =
      sigv4SigningKey("wJalrXUtnFEMI/K7MDENG+bPxRfiCYEXAMPLEKEY", "20120215", "us-east-1", "iam");
  EXPECT_EQ(toHex(key), "f4780e2d9f65fa895f9c67b32ce1baf0b0d8a43505a000a1a9e090d414db404d");
}

TEST(StoragePolicyTest, SignedFormCarriesTheMediaFieldsInOrder) {
  Fields fields = signedForm();
  std::vector<std::string> names;
  for (const auto& field : fields) names.push_back(field.first);
  EXPECT_EQ(names, (std::vector<std::string>{"key", "Content-Type", "bucket", "X-Amz-Algorithm",
                                             "X-Amz-Credential", "X-Amz-Date",
                                             "X-Amz-Security-Token", "Policy", "X-Amz-Signature"}));
  auto policy = nlohmann::json::parse(*base64Decode(fields[7].second));
  EXPECT_EQ(policy["expiration"], "2024-05-01T13:00:00.000Z");
  EXPECT_EQ(policy["conditions"][0], (nlohmann::json{{"bucket", "nembra-media"}}));
  EXPECT_EQ(policy["conditions"][3], (nlohmann::json{"content-length-range", 1, 1000}));
}

TEST(StoragePolicyTest, AcceptsItsOwnFormInAnyOrderAndCase) {
  Fields fields = signedForm();
  std::reverse(fields.begin(), fields.end());
  for (auto& field : fields) {
    if (field.first == "Policy") field.first = "policy";
  }
  StoragePolicyGrant grant;
  auto error = StoragePolicyVerifier(credentials()).verify(fields, "nembra-media", kNow, grant);
  ASSERT_FALSE(error) << error->code << ": " << error->message;
  EXPECT_EQ(grant.key, "applications/app/videos/v/streams/s/video.mp4");
  EXPECT_EQ(grant.contentType, "video/mp4");
  EXPECT_EQ(grant.minBytes, 1);
  EXPECT_EQ(grant.maxBytes, 1000);
}

struct TamperCase {
  const char* name;
  std::function<void(Fields&)> tamper;
  int status;
  const char* code;
  int64_t now = kNow;
  const char* bucket = "nembra-media";
};

class StoragePolicyTamperTest : public ::testing::TestWithParam<TamperCase> {};

TEST_P(StoragePolicyTamperTest, IsRefusedWithS3Codes) {
  Fields fields = signedForm();
  if (GetParam().tamper) GetParam().tamper(fields);
  StoragePolicyGrant grant;
  auto error =
      StoragePolicyVerifier(credentials()).verify(fields, GetParam().bucket, GetParam().now, grant);
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->status, GetParam().status) << error->message;
  EXPECT_EQ(error->code, GetParam().code) << error->message;
}

INSTANTIATE_TEST_SUITE_P(
    Forms, StoragePolicyTamperTest,
    ::testing::Values(
        TamperCase{"OtherKey", [](Fields& f) { set(f, "key", "applications/app/../../x"); }, 403,
                   "AccessDenied"},
        TamperCase{"OtherContentType", [](Fields& f) { set(f, "Content-Type", "text/html"); }, 403,
                   "AccessDenied"},
        TamperCase{"EditedPolicy",
                   [](Fields& f) {
                     auto policy = nlohmann::json::parse(*base64Decode(f[7].second));
                     policy["conditions"][3][2] = 1 << 30;
                     set(f, "Policy", base64Encode(policy.dump()));
                   },
                   403, "SignatureDoesNotMatch"},
        TamperCase{"SignedWithAnotherSecret",
                   [](Fields& f) {
                     resignWithPolicy(f, nlohmann::json::parse(*base64Decode(f[7].second)),
                                      "guessed");
                   },
                   403, "SignatureDoesNotMatch"},
        TamperCase{"Expired", nullptr, 403, "AccessDenied", kNow + 3601},
        TamperCase{"PostedToAnotherBucket", [](Fields& f) { drop(f, "bucket"); }, 403,
                   "AccessDenied", kNow, "another-bucket"},
        TamperCase{"BucketFieldNotTheUrls", nullptr, 400, "InvalidArgument", kNow,
                   "another-bucket"},
        TamperCase{"ExtraField", [](Fields& f) { set(f, "acl", "public-read"); }, 403,
                   "AccessDenied"},
        TamperCase{"MissingSignature", [](Fields& f) { drop(f, "X-Amz-Signature"); }, 403,
                   "AccessDenied"},
        TamperCase{"SignatureInUpperCaseHex",
                   [](Fields& f) {
                     for (auto& [name, value] : f) {
                       if (name != "X-Amz-Signature") continue;
                       for (char& c : value) c = static_cast<char>(std::toupper(c));
                     }
                   },
                   403, "SignatureDoesNotMatch"},
        TamperCase{"MissingKey", [](Fields& f) { drop(f, "key"); }, 400, "InvalidArgument"},
        TamperCase{"DuplicateField", [](Fields& f) { f.emplace_back("KEY", "x"); }, 400,
                   "InvalidArgument"},
        TamperCase{"OtherAlgorithm", [](Fields& f) { set(f, "X-Amz-Algorithm", "AWS4-HMAC-MD5"); },
                   400, "InvalidArgument"},
        TamperCase{"UnknownAccessKey",
                   [](Fields& f) {
                     set(f, "X-Amz-Credential", "SOMEONE/20240501/us-east-1/s3/aws4_request");
                   },
                   403, "InvalidAccessKeyId"},
        TamperCase{"CredentialDateNotTheRequestDate",
                   [](Fields& f) { set(f, "X-Amz-Date", "20240502T120000Z"); }, 403,
                   "AccessDenied"},
        TamperCase{"PolicyNotBase64",
                   [](Fields& f) {
                     set(f, "Policy", "not base64!");
                     set(f, "X-Amz-Signature",
                         sigv4PolicySignature(credentials(), "20240501", "not base64!"));
                   },
                   400, "InvalidPolicyDocument"},
        TamperCase{"ConditionWithUnknownOperator",
                   [](Fields& f) {
                     auto policy = nlohmann::json::parse(*base64Decode(f[7].second));
                     policy["conditions"].push_back({"ends-with", "$key", "mp4"});
                     resignWithPolicy(f, policy, "s3cr3t");
                   },
                   400, "InvalidPolicyDocument"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(StoragePolicyTest, StartsWithConditionsAndIgnoredFields) {
  Fields fields = signedForm();
  auto policy = nlohmann::json::parse(*base64Decode(fields[7].second));
  policy["conditions"].push_back({"starts-with", "$success_action_redirect", "http://ok/"});
  resignWithPolicy(fields, policy, "s3cr3t");
  set(fields, "success_action_redirect", "http://ok/done");
  set(fields, "x-ignore-tracking", "anything");
  StoragePolicyGrant grant;
  StoragePolicyVerifier verifier(credentials());
  EXPECT_FALSE(verifier.verify(fields, "nembra-media", kNow, grant));
  set(fields, "success_action_redirect", "http://evil/");
  EXPECT_TRUE(verifier.verify(fields, "nembra-media", kNow, grant));
}

}  // namespace
}  // namespace nembra
