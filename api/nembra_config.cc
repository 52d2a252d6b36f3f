#include "nembra/nembra_config.h"

namespace nembra {

namespace {

std::string trimTrailingSlashes(std::string url) {
  while (!url.empty() && url.back() == '/') url.pop_back();
  return url;
}

// "http://host:8080/x" → "host".
std::string hostOf(const std::string& url) {
  auto start = url.find("://");
  start = start == std::string::npos ? 0 : start + 3;
  auto end = url.find_first_of(":/?#", start);
  if (start < url.size() && url[start] == '[') end = url.find(']', start) + 1;
  return url.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

}  // namespace

NembraConfig::NembraConfig() : NembraConfig(std::string()) {}

NembraConfig::NembraConfig(const std::string& token) {
  const bool eu = isEuToken(token);
  server_api_url = eu ? NembraServerDefaults::kEuEmbedApi : NembraServerDefaults::kUsEmbedApi;
  cdn_api_url = eu ? NembraServerDefaults::kEuEmbedCdn : NembraServerDefaults::kUsEmbedCdn;
  dev_server_api_url = eu ? NembraServerDefaults::kEuApi : NembraServerDefaults::kUsApi;
  wowza_url = NembraServerDefaults::kRtmpIngest;
  file_server_url = NembraServerDefaults::kMediaCdn;
}

bool NembraConfig::isEuToken(const std::string& token) { return token.rfind("r1", 0) == 0; }

void NembraConfig::useSingleServer(const std::string& base) {
  const std::string root = trimTrailingSlashes(base);
  server_api_url = root;
  dev_server_api_url = root + "/embed";
  cdn_api_url = root + "/cdn";
  file_server_url = root + "/files";
  wowza_url = "rtmp://" + hostOf(root) + ":1935/record/_definst_";
}

}  // namespace nembra
