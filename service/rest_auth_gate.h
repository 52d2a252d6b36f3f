// The common start of every REST route: read the parameters (query, and the form body unless the
// route reads the body itself), check the session for the application in the path, and answer
// the error when any of it fails.
//
// Threading: any HTTP worker thread.
#pragma once

#include <optional>
#include <string>

#include "service/form_params.h"
#include "service/rest_request.h"
#include "service/service_options.h"
#include "service/session_registry.h"

namespace nembra {

struct AuthedRequest {
  FormParams params;
  RequestAuth auth;
};

class RestAuthGate {
 public:
  enum class Body {
    Form,       // the body holds parameters (a form or a JSON object)
    RouteOwns,  // the route reads the body itself (raw cover, multipart file); query only
  };

  RestAuthGate(SessionRegistry& sessions, const ServiceOptions& options);

  // Nothing when the request was refused; the error has been answered then. |application| is
  // the path's application token, or empty on the host-less paths.
  std::optional<AuthedRequest> open(RestRequest& request, const std::string& application,
                                    Body body = Body::Form) const;

  SessionRegistry& sessions() const { return sessions_; }

 private:
  SessionRegistry& sessions_;
  const ServiceOptions& options_;
};

}  // namespace nembra
