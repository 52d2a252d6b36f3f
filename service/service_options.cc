#include "service/service_options.h"

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

std::string defaultDataDirectory() {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg && *xdg) return std::string(xdg) + "/nembra/service";
  const char* home = std::getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.local/share/nembra/service";
}

}  // namespace nembra
