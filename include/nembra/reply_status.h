// Turns a service answer whose HTTP status the operation cannot use into an Error. The
// connection passes every status through as a normal answer; operations that go on to act on
// an answer (upload, confirm, download, covers, the CLI) ask this first.
//
// Threading: stateless; any thread.
#pragma once

#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/http_message.h"
#include "nembra/json.h"

namespace nembra {

class ReplyStatus {
 public:
  static bool isSuccess(int status) { return status >= 200 && status < 300; }
  // An Http error "<what> answered HTTP <status>: <the service's message>" when the status is
  // not 2xx; nothing otherwise. A status of 0 (no answer) is for the transport error to tell.
  static OptionalError check(const std::string& what, const HttpResponse& response,
                             const std::optional<Json>& json = std::nullopt);
  // A confirm the service refuses because it has already taken it (409 "... already
  // confirmed"): the upload it confirms is finished, typically by a run that died before it
  // heard the first answer.
  static bool isAlreadyConfirmed(const HttpResponse& response, const std::optional<Json>& json);
  // Whether sending the same request again may get a different answer: no answer at all, a
  // timeout, throttling or a server-side failure. Any other refusal is final.
  static bool mayPassLater(const HttpResponse& response, const OptionalError& error);
  // The service's own explanation in an error body ("message", else "error"), or "".
  static std::string serviceMessage(const std::optional<Json>& json);
};

}  // namespace nembra
