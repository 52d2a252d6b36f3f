#include "service/rest_auth_gate.h"

#include "service/service_reply.h"

namespace nembra {

RestAuthGate::RestAuthGate(SessionRegistry& sessions, const ServiceOptions& options)
    : sessions_(sessions), options_(options) {}

std::optional<AuthedRequest> RestAuthGate::open(RestRequest& request,
                                                const std::string& application, Body body) const {
  auto params = body == Body::Form ? request.readParams(options_.maxBodyBytes) : request.query();
  if (!params) {
    ServiceReply::error(request.response, params.error());
    return std::nullopt;
  }
  auto auth = sessions_.authenticate(application, *params);
  if (!auth) {
    ServiceReply::error(request.response, auth.error());
    // The body was left unread; the connection cannot carry another request after it.
    if (body == Body::RouteOwns && request.hasBody())
      request.response.set_header("Connection", "close");
    return std::nullopt;
  }
  return AuthedRequest{std::move(*params), std::move(*auth)};
}

}  // namespace nembra
