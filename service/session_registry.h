// Sessions and the applications they act for. POST "/session" hands out a session token; every
// other call carries it as the value of the parameter named by the SDK's fixed prefix followed
// by the application token. A session belongs to the first application it is used with.
//
// Which applications are served: with an allow-list, exactly those; without one, any safe token,
// recorded on first use.
//
// Sessions expire once unused for their lifetime, and each client address may open only so many
// per minute (a token bucket): neither the store nor the cache grows without bound.
//
// Threading: any thread. Sessions and applications are cached in memory behind a mutex; the
// store is written only when something changes (a session's last use at a coarse grain).
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "service/form_params.h"
#include "service/media_store.h"
#include "service/result.h"

namespace nembra {

// Who a request acts as, once authenticated.
struct RequestAuth {
  std::string application;
  std::string session;
  std::string sessionDigest;  // shown in replies in place of the session token
  std::string clientAuth;     // "client_auth" of this request, when sent
  std::string serverAuth;     // "server_auth" of this request, when sent
};

struct SessionLimits {
  int64_t lifetimeSeconds = 7 * 24 * 3600;  // unused this long, a session is gone
  int perMinute = 60;                       // new sessions per client address; 0: no limit
};

class SessionRegistry {
 public:
  using Clock = std::function<int64_t()>;  // Unix seconds

  // Kept as is: the SDK derives the session parameter's name from exactly this prefix.
  static constexpr const char* kSessionKeyPrefix = "k3v9qd72mx0wzr5hub81tnea";

  SessionRegistry(MediaStore& store, std::vector<std::string> allowedApplications,
                  SessionLimits limits = {}, Clock clock = nullptr);

  // A new session for a client at |clientAddress|; 429 when that address opened too many.
  Result<std::string> createSession(const std::string& clientAddress = "");

  // True when |application| is a safe token this service serves.
  bool serves(const std::string& application) const;

  // Checks that |params| carry a live session for |application| (401 otherwise) and records the
  // request's "client_auth" and "server_auth". With an empty |application| (the SDK's host-less
  // paths) the application is the one the session parameter's name carries.
  Result<RequestAuth> authenticate(const std::string& application, const FormParams& params);

 private:
  Result<SessionRecord> lookup(const std::string& token);
  // Under mutex_: drops expired sessions and idle rate buckets, at most once a minute.
  OptionalError sweep(int64_t now);

  struct Bucket {
    double tokens = 0;
    int64_t updated = 0;
  };

  MediaStore& store_;
  const std::set<std::string> allowed_;
  std::mutex mutex_;
  std::unordered_map<std::string, SessionRecord> sessions_;  // guarded by mutex_
  std::set<std::string> knownApplications_;                  // guarded by mutex_
  const SessionLimits limits_;
  const Clock clock_;
  std::map<std::string, Bucket> buckets_;  // guarded by mutex_; by client address
  int64_t lastSweep_ = 0;                  // guarded by mutex_
};

}  // namespace nembra
