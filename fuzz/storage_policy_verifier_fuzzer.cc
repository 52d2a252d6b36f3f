// Checks arbitrary storage forms. The first byte picks the shape: fields as "name=value" lines
// (almost never signed right), or a policy document that is then signed with the verifier's own
// key, so that the policy's conditions are what gets exercised.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/http/base64.h"
#include "service/storage_policy_verifier.h"

using Fields = std::vector<std::pair<std::string, std::string>>;

namespace {

constexpr int64_t kNow = 1714567890;  // 2024-05-01

nembra::StorageCredentials credentials() {
  nembra::StorageCredentials c;
  c.accessKeyId = "NMBRFUZZKEY";
  c.secret = "fuzz-secret";
  return c;
}

Fields lines(std::string_view text) {
  Fields fields;
  while (!text.empty()) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    size_t equals = line.find('=');
    if (equals != std::string_view::npos) {
      fields.emplace_back(std::string(line.substr(0, equals)),
                          std::string(line.substr(equals + 1)));
    }
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return fields;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static const nembra::StoragePolicyVerifier verifier(credentials());
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  Fields fields;
  if (data[0] & 1) {
    // Policy document first, then the other fields as lines after a NUL.
    size_t split = rest.find('\0');
    std::string policy = nembra::base64Encode(rest.substr(0, split));
    fields = split == std::string_view::npos ? Fields{} : lines(rest.substr(split + 1));
    fields.emplace_back("policy", policy);
    fields.emplace_back("x-amz-signature",
                        nembra::sigv4PolicySignature(credentials(), "20240501", policy));
  } else {
    fields = lines(rest);
  }
  nembra::StoragePolicyGrant grant;
  auto error = verifier.verify(fields, "nembra-media", kNow, grant);
  if (error) {
    if (error->status < 400 || error->status > 499 || error->code.empty()) std::abort();
  } else if (grant.key.empty() || grant.minBytes > grant.maxBytes) {
    std::abort();
  }
  return 0;
}
