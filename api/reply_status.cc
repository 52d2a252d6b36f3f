#include "nembra/reply_status.h"

namespace nembra {

OptionalError ReplyStatus::check(const std::string& what, const HttpResponse& response,
                                 const std::optional<Json>& json) {
  if (response.status == 0 || isSuccess(response.status)) return std::nullopt;
  std::string message = what + " answered HTTP " + std::to_string(response.status);
  std::string explanation = serviceMessage(json);
  if (!explanation.empty()) message += ": " + explanation;
  return Error::http(response.status, message);
}

bool ReplyStatus::isAlreadyConfirmed(const HttpResponse& response,
                                     const std::optional<Json>& json) {
  return response.status == 409 &&
         serviceMessage(json).find("already confirmed") != std::string::npos;
}

bool ReplyStatus::mayPassLater(const HttpResponse& response, const OptionalError& error) {
  if (error || response.status == 0) return true;
  const int status = response.status;
  return status == 408 || status == 429 || status >= 500;
}

std::string ReplyStatus::serviceMessage(const std::optional<Json>& json) {
  if (!json || !json->is_object()) return "";
  for (const char* key : {"message", "error"}) {
    auto found = json->find(key);
    if (found != json->end() && found->is_string() && !found->get<std::string>().empty()) {
      return found->get<std::string>();
    }
  }
  return "";
}

}  // namespace nembra
