#include "service/session_registry.h"

#include <cstring>

#include "platform/http/http_time.h"
#include "service/sigv4_signing.h"
#include "service/token_rules.h"

namespace nembra {

SessionRegistry::SessionRegistry(MediaStore& store, std::vector<std::string> allowedApplications)
    : store_(store), allowed_(allowedApplications.begin(), allowedApplications.end()) {}

bool SessionRegistry::serves(const std::string& application) const {
  if (!isSafeToken(application)) return false;
  return allowed_.empty() || allowed_.count(application) > 0;
}

Result<std::string> SessionRegistry::createSession() {
  SessionRecord session;
  session.token = randomHex(32);
  session.created = unixNow();
  if (auto error = store_.insertSession(session)) return *error;
  std::lock_guard lock(mutex_);
  sessions_[session.token] = session;
  return session.token;
}

Result<SessionRecord> SessionRegistry::lookup(const std::string& token) {
  {
    std::lock_guard lock(mutex_);
    auto it = sessions_.find(token);
    if (it != sessions_.end()) return it->second;
  }
  auto found = store_.findSession(token);
  if (!found) return found.error();
  if (!*found) {
    return Error::http(401, "unknown session; POST /session for a new one");
  }
  std::lock_guard lock(mutex_);
  return sessions_.emplace(token, **found).first->second;
}

Result<RequestAuth> SessionRegistry::authenticate(const std::string& application,
                                                  const FormParams& params) {
  const size_t prefixLength = std::strlen(kSessionKeyPrefix);
  std::string app = application;
  std::optional<std::string> token;
  std::string otherApplication;
  for (const auto& [name, value] : params.pairs()) {
    if (name.compare(0, prefixLength, kSessionKeyPrefix) != 0) continue;
    std::string named = name.substr(prefixLength);
    if (app.empty() || named == app) {
      app = named;
      token = value;
      break;
    }
    otherApplication = named;
  }
  if (!token) {
    if (!otherApplication.empty()) {
      return Error::http(401, "the session parameter is for application \"" + otherApplication +
                                  "\", not \"" + app + "\"");
    }
    return Error::http(401, std::string("no session: POST /session and send its token as ") +
                                kSessionKeyPrefix + (app.empty() ? "<application token>" : app));
  }
  if (!serves(app)) {
    return Error::http(401,
                       "the application token \"" + app.substr(0, 64) + "\" is not served here");
  }
  auto session = lookup(*token);
  if (!session) return session.error();

  RequestAuth auth;
  auth.application = app;
  auth.session = session->token;
  auth.sessionDigest = toHex(sha256(session->token)).substr(0, 16);
  auth.clientAuth = params.get("client_auth").value_or("");
  auth.serverAuth = params.get("server_auth").value_or("");

  std::lock_guard lock(mutex_);
  // Checked again under the lock: two first uses of one session must not both bind it.
  SessionRecord& current = sessions_[session->token];
  if (current.token.empty()) current = *session;
  if (!current.application.empty() && current.application != app) {
    return Error::http(401, "this session belongs to another application");
  }
  bool changed = current.application.empty() ||
                 (!auth.clientAuth.empty() && auth.clientAuth != current.clientAuth) ||
                 (!auth.serverAuth.empty() && auth.serverAuth != current.serverAuth);
  if (changed) {
    SessionRecord updated = current;
    updated.application = app;
    if (!auth.clientAuth.empty()) updated.clientAuth = auth.clientAuth;
    if (!auth.serverAuth.empty()) updated.serverAuth = auth.serverAuth;
    if (auto error = store_.updateSession(updated)) return *error;
    current = updated;
  }
  if (!knownApplications_.count(app)) {
    if (auto error = store_.ensureApplication(app, unixNow())) return *error;
    knownApplications_.insert(app);
  }
  return auth;
}

}  // namespace nembra
