// The signed form fields of a direct upload to storage, as the service hands them out. They go
// back out, unchanged and in toDictionary's order, as the form fields of the upload.
//
// Threading: a plain value; any thread, one at a time.
#pragma once

#include <string>

#include "nembra/json.h"

namespace nembra {

class MediaFields {
 public:
  MediaFields() = default;
  static MediaFields initWithJson(const Json& json);

  void setInfo(const Json& json);
  void clear();
  // key, Content-Type, bucket, X-Amz-Algorithm, X-Amz-Credential, X-Amz-Date,
  // X-Amz-Security-Token, Policy, X-Amz-Signature: the signature last.
  Json toDictionary() const;
  // "MediaFields{" and one "name=value," per line, each indented by 28 spaces.
  std::string toString() const;

  std::string key;
  std::string contentType;
  std::string bucket;
  std::string xAmzAlgorithm;
  std::string xAmzCredential;
  std::string xAmzSignature;
  std::string xAmzDate;
  std::string xAmzSecurityToken;
  std::string policy;
};

}  // namespace nembra
