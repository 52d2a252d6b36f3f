#include "service/session_registry.h"

#include <cstring>

#include "platform/http/http_time.h"
#include "service/sigv4_signing.h"
#include "service/token_rules.h"

namespace nembra {

namespace {

// A session's last use is written at most this often: a busy client costs no write per request.
constexpr int64_t kLastUseGrainSeconds = 60;
constexpr int64_t kSweepIntervalSeconds = 60;

}  // namespace

SessionRegistry::SessionRegistry(MediaStore& store, std::vector<std::string> allowedApplications,
                                 SessionLimits limits, Clock clock)
    : store_(store),
      allowed_(allowedApplications.begin(), allowedApplications.end()),
      limits_(limits),
      clock_(clock ? std::move(clock) : Clock(unixNow)) {}

bool SessionRegistry::serves(const std::string& application) const {
  if (!isSafeToken(application)) return false;
  return allowed_.empty() || allowed_.count(application) > 0;
}

Result<std::string> SessionRegistry::createSession(const std::string& clientAddress) {
  int64_t now = clock_();
  {
    std::lock_guard lock(mutex_);
    if (auto error = sweep(now)) return *error;
    if (limits_.perMinute > 0) {
      double capacity = limits_.perMinute;
      auto [bucket, fresh] = buckets_.try_emplace(clientAddress, Bucket{capacity, now});
      bucket->second.tokens = std::min(
          capacity, bucket->second.tokens + (now - bucket->second.updated) * capacity / 60.0);
      bucket->second.updated = now;
      if (bucket->second.tokens < 1) {
        int64_t wait = static_cast<int64_t>((1 - bucket->second.tokens) * 60.0 / capacity) + 1;
        return Error::http(429, "too many new sessions from this address; try again in " +
                                    std::to_string(wait) + " s");
      }
      bucket->second.tokens -= 1;
    }
  }
  SessionRecord session;
  session.token = randomHex(32);
  session.created = now;
  session.lastUsed = now;
  if (auto error = store_.insertSession(session)) return *error;
  std::lock_guard lock(mutex_);
  sessions_[session.token] = session;
  return session.token;
}

OptionalError SessionRegistry::sweep(int64_t now) {
  if (now - lastSweep_ < kSweepIntervalSeconds) return std::nullopt;
  lastSweep_ = now;
  int64_t cutoff = now - limits_.lifetimeSeconds;
  auto removed = store_.deleteSessionsUnusedSince(cutoff);
  if (!removed) return removed.error();
  std::erase_if(sessions_, [&](const auto& entry) { return entry.second.lastUsed < cutoff; });
  // A bucket untouched for a minute is full again: forgetting it changes nothing.
  std::erase_if(buckets_, [&](const auto& entry) { return now - entry.second.updated >= 60; });
  return std::nullopt;
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
  int64_t now = clock_();
  if (now - session->lastUsed > limits_.lifetimeSeconds) {
    std::lock_guard lock(mutex_);
    sessions_.erase(session->token);
    return Error::http(401, "the session has expired; POST /session for a new one");
  }

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
                 (!auth.serverAuth.empty() && auth.serverAuth != current.serverAuth) ||
                 now - current.lastUsed >= kLastUseGrainSeconds;
  if (changed) {
    SessionRecord updated = current;
    updated.application = app;
    updated.lastUsed = now;
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
