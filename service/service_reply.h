// How the service answers: JSON for the REST API (errors as {"status", "error", "message"}),
// S3-style XML for storage refusals.
#pragma once

#include <httplib.h>

#include <nlohmann/json.hpp>
#include <string>

#include "nembra/error.h"
#include "service/storage_policy_verifier.h"

namespace nembra {

class ServiceReply {
 public:
  static void json(httplib::Response& response, int status, const nlohmann::ordered_json& body);
  // {"status": 404, "error": "Not Found", "message": "…"}
  static void error(httplib::Response& response, int status, const std::string& message);
  // The JSON document of error(), for answers written outside the HTTP library.
  static std::string errorBody(int status, const std::string& message);
  // The status an Error stands for: Http errors carry theirs; bad arguments and unparsable input
  // are 400, unusable media 422, everything else 500.
  static void error(httplib::Response& response, const Error& error);
  static int statusFor(const Error& error);

  // <Error><Code>…</Code><Message>…</Message><RequestId>…</RequestId><HostId>…</HostId></Error>
  static void storageError(httplib::Response& response, const StorageError& error);
  // The XML document of storageError(), for servers that write their own answers.
  static std::string storageErrorBody(const StorageError& error);

  static const char* reasonPhrase(int status);
  static std::string xmlEscape(const std::string& text);
};

}  // namespace nembra
