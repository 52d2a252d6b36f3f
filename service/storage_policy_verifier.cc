#include "service/storage_policy_verifier.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "platform/http/base64.h"
#include "platform/http/http_time.h"
#include "service/http_text.h"

namespace nembra {
namespace {

StorageError denied(std::string message) { return {403, "AccessDenied", std::move(message)}; }
StorageError invalidArgument(std::string message) {
  return {400, "InvalidArgument", std::move(message)};
}
StorageError invalidPolicy(std::string message) {
  return {400, "InvalidPolicyDocument", "Invalid Policy: " + std::move(message)};
}

std::string conditionText(const std::string& op, const std::string& field,
                          const std::string& value) {
  return "Invalid according to Policy: Policy Condition failed: [\"" + op + "\", \"$" + field +
         "\", \"" + value + "\"]";
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// Fields the form may carry without a condition naming them.
bool exemptFromConditions(const std::string& name) {
  return name == "policy" || name == "x-amz-signature" || name == "file" ||
         startsWith(name, "x-ignore-");
}

}  // namespace

StoragePolicyVerifier::StoragePolicyVerifier(StorageCredentials credentials)
    : credentials_(std::move(credentials)) {}

std::optional<StorageError> StoragePolicyVerifier::verify(
    const std::vector<std::pair<std::string, std::string>>& posted, const std::string& bucket,
    int64_t now, StoragePolicyGrant& grant) const {
  // Field names compare without regard to case, as S3's do.
  std::map<std::string, std::string> fields;
  for (const auto& [name, value] : posted) {
    if (!fields.emplace(asciiLower(name), value).second) {
      return invalidArgument("the form has the field '" + name + "' more than once");
    }
  }
  auto field = [&](const char* name) -> const std::string* {
    auto it = fields.find(name);
    return it == fields.end() ? nullptr : &it->second;
  };

  if (!field("key")) return invalidArgument("Bucket POST must contain a field named 'key'.");
  for (const char* required :
       {"policy", "x-amz-signature", "x-amz-algorithm", "x-amz-credential", "x-amz-date"}) {
    if (!field(required)) {
      return denied(std::string("Bucket POST must contain a field named '") + required + "'.");
    }
  }
  if (*field("x-amz-algorithm") != "AWS4-HMAC-SHA256") {
    return invalidArgument("the only supported X-Amz-Algorithm is AWS4-HMAC-SHA256");
  }
  if (const std::string* named = field("bucket"); named && *named != bucket) {
    return invalidArgument("the form's bucket '" + *named + "' is not the bucket of the URL");
  }

  // access-key/date/region/service/aws4_request
  std::vector<std::string> scope;
  const std::string& credential = *field("x-amz-credential");
  for (size_t start = 0;;) {
    size_t slash = credential.find('/', start);
    scope.push_back(credential.substr(start, slash - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  if (scope.size() != 5 || scope[4] != "aws4_request") {
    return invalidArgument("malformed X-Amz-Credential '" + credential + "'");
  }
  if (scope[0] != credentials_.accessKeyId) {
    return StorageError{403, "InvalidAccessKeyId",
                        "The AWS Access Key Id you provided does not exist in our records."};
  }
  if (scope[2] != credentials_.region || scope[3] != credentials_.service) {
    return StorageError{400, "AuthorizationHeaderMalformed",
                        "the credential scope is " + scope[2] + "/" + scope[3] + ", expecting " +
                            credentials_.region + "/" + credentials_.service};
  }
  const std::string& amzDate = *field("x-amz-date");
  if (!parseAmzDate(amzDate)) return invalidArgument("X-Amz-Date must be YYYYMMDDTHHMMSSZ");
  if (amzDate.substr(0, 8) != scope[1]) {
    return denied("Invalid credential date. Date is not the same as X-Amz-Date.");
  }

  const std::string& policyText = *field("policy");
  std::string expected = sigv4PolicySignature(credentials_, scope[1], policyText);
  // Exactly as signed: lower-case hex, compared in constant time.
  if (!constantTimeEquals(expected, *field("x-amz-signature"))) {
    return StorageError{403, "SignatureDoesNotMatch",
                        "The request signature we calculated does not match the signature you "
                        "provided. Check your key and signing method."};
  }

  auto decoded = base64Decode(policyText);
  if (!decoded) return invalidPolicy("the policy is not base64");
  auto policy = nlohmann::json::parse(*decoded, nullptr, false);
  if (!policy.is_object()) return invalidPolicy("Invalid JSON.");
  auto expiration = policy.find("expiration");
  auto conditions = policy.find("conditions");
  if (expiration == policy.end() || !expiration->is_string()) {
    return invalidPolicy("Policy missing expiration.");
  }
  if (conditions == policy.end() || !conditions->is_array()) {
    return invalidPolicy("Policy missing conditions.");
  }
  auto expires = parseIso8601(expiration->get<std::string>());
  if (!expires) return invalidPolicy("Invalid 'expiration' value.");
  if (now > *expires) return denied("Invalid according to Policy: Policy expired.");

  StoragePolicyGrant allowed;
  std::set<std::string> covered;
  auto fieldValue = [&](const std::string& name) -> std::string {
    if (name == "bucket") return bucket;
    const std::string* value = field(name.c_str());
    return value ? *value : std::string();
  };
  for (const auto& condition : *conditions) {
    if (condition.is_object() && condition.size() == 1 && condition.begin()->is_string()) {
      std::string name = asciiLower(condition.begin().key());
      std::string value = condition.begin()->get<std::string>();
      if (fieldValue(name) != value) return denied(conditionText("eq", name, value));
      covered.insert(name);
      continue;
    }
    if (!condition.is_array() || condition.size() != 3 || !condition[0].is_string()) {
      return invalidPolicy("Invalid Condition.");
    }
    std::string op = asciiLower(condition[0].get<std::string>());
    if (op == "content-length-range") {
      if (!condition[1].is_number_integer() || !condition[2].is_number_integer()) {
        return invalidPolicy("Invalid content-length-range.");
      }
      allowed.minBytes = condition[1].get<int64_t>();
      allowed.maxBytes = condition[2].get<int64_t>();
      continue;
    }
    if ((op != "eq" && op != "starts-with") || !condition[1].is_string() ||
        !condition[2].is_string()) {
      return invalidPolicy("Invalid Condition.");
    }
    std::string name = condition[1].get<std::string>();
    if (name.empty() || name[0] != '$') return invalidPolicy("Invalid Condition.");
    name = asciiLower(name.substr(1));
    std::string value = condition[2].get<std::string>();
    std::string actual = fieldValue(name);
    bool ok = op == "eq" ? actual == value : startsWith(actual, value);
    if (!ok) return denied(conditionText(op, name, value));
    covered.insert(name);
  }
  for (const auto& [name, value] : fields) {
    if (!exemptFromConditions(name) && !covered.count(name)) {
      return denied("Invalid according to Policy: Extra input fields: " + name);
    }
  }
  allowed.key = *field("key");
  if (const std::string* type = field("content-type")) allowed.contentType = *type;
  grant = std::move(allowed);
  return std::nullopt;
}

}  // namespace nembra
