// The five server URLs the SDK talks to, chosen by the application token's region.
#pragma once

#include <string>

namespace nembra {

// Region defaults. Hosts live under one domain so a deployment can override them all at once
// (NembraConfig's setters, or `--server` in the CLI).
struct NembraServerDefaults {
  static constexpr const char* kUsEmbedApi = "https://embed.us.nembra.example";
  static constexpr const char* kEuEmbedApi = "https://embed.eu-west-1.nembra.example";
  static constexpr const char* kUsEmbedCdn = "https://cdn.embed.us.nembra.example";
  static constexpr const char* kEuEmbedCdn = "https://cdn.embed.eu-west-1.nembra.example";
  static constexpr const char* kUsApi = "https://api.us-east-1.nembra.example/embed";
  static constexpr const char* kEuApi = "https://api.eu-west-1.nembra.example/embed";
  static constexpr const char* kMediaCdn = "https://media.nembra.example";
  static constexpr const char* kRtmpIngest = "rtmp://live.nembra.example:1935/record/_definst_";
};

class NembraConfig {
 public:
  // US defaults.
  NembraConfig();
  // EU defaults when |token| begins with exactly "r1" (case-sensitive), US otherwise.
  explicit NembraConfig(const std::string& token);

  static bool isEuToken(const std::string& token);

  // URLs carry no trailing slash; callers append paths that begin with "/".
  std::string server_api_url;
  std::string cdn_api_url;
  std::string wowza_url;
  std::string dev_server_api_url;
  std::string file_server_url;

  // Points every URL at one base, as a local service serves them: API at |base|, dev API at
  // base + "/embed", CDN at base + "/cdn", files at base + "/files", and RTMP ingest on the
  // base's host at port 1935.
  void useSingleServer(const std::string& base);
};

}  // namespace nembra
