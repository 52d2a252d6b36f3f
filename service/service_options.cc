#include "service/service_options.h"

#include <algorithm>
#include <cstdlib>

namespace nembra {

std::string ServiceOptions::publicHost() const {
  if (host.empty() || host == "0.0.0.0" || host == "::") return "127.0.0.1";
  if (host.find(':') != std::string::npos) return "[" + host + "]";
  return host;
}

std::string ServiceOptions::publicBaseUrl(int boundPort) const {
  return "http://" + publicHost() + ":" + std::to_string(boundPort);
}

HttpConnectionLimits ServiceOptions::connectionLimits() const {
  HttpConnectionLimits limits;
  limits.workers = static_cast<size_t>(std::max(1, httpThreads));
  limits.maxConnections = static_cast<size_t>(std::max(1, maxConnections));
  limits.headTimeout = std::chrono::milliseconds(std::max(1, headTimeoutMs));
  limits.idleTimeout = std::chrono::milliseconds(std::max(1, idleTimeoutMs));
  limits.body.grace = std::chrono::milliseconds(std::max(0, bodyGraceMs));
  limits.body.minBytesPerSecond = minBodyBytesPerSecond;
  return limits;
}

std::string defaultDataDirectory() {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg && *xdg) return std::string(xdg) + "/nembra/service";
  const char* home = std::getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.local/share/nembra/service";
}

}  // namespace nembra
