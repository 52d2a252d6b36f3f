#include "cli/cli_context.h"

#include <cstdio>

#include "api/console_log.h"
#include "api/media_token.h"
#include "nembra/application.h"
#include "platform/media/media_log.h"

namespace nembra {

CliContext::CliContext() = default;
CliContext::~CliContext() = default;

Nembra& CliContext::nembra() {
  if (nembra_) return *nembra_;
  nembra_ = std::make_unique<Nembra>(options.token);
  NembraConfig& config = nembra_->config();
  if (!options.server.empty()) config.useSingleServer(options.server);
  if (!options.apiUrl.empty()) config.server_api_url = options.apiUrl;
  if (!options.cdnUrl.empty()) config.cdn_api_url = options.cdnUrl;
  if (!options.devApiUrl.empty()) config.dev_server_api_url = options.devApiUrl;
  if (!options.fileUrl.empty()) config.file_server_url = options.fileUrl;
  if (!options.rtmpUrl.empty()) config.wowza_url = options.rtmpUrl;
  nembra_->enableDebugLogs = options.debug;
  nembra_->setLogSink([](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
  // Helpers without an application object (file copies, reachability) print only on request.
  setConsoleLogEnabled(options.debug);
  // FFmpeg's own chatter (encoder statistics) only with --debug; errors always.
  setMediaLogLevel(options.debug ? MediaLogLevel::Info : MediaLogLevel::Errors);
  return *nembra_;
}

bool chosenUiKind(const CliContext& context, UiKind& kind, std::string& error) {
  kind = defaultUiKind();
  if (context.options.ui.empty() || parseUiKind(context.options.ui, kind)) return true;
  error = "--ui takes window, terminal or none, not \"" + context.options.ui + "\"";
  return false;
}

Json parseNameValues(const std::vector<std::string>& pairs, std::string& error) {
  Json values = Json::object();
  for (const std::string& pair : pairs) {
    const size_t equals = pair.find('=');
    if (equals == std::string::npos || equals == 0) {
      error = "\"" + pair + "\" is not name=value";
      return nullptr;
    }
    values[pair.substr(0, equals)] = pair.substr(equals + 1);
  }
  return values;
}

std::function<std::string(const std::string&)> tokenValidator(const std::string& what) {
  return [what](const std::string& value) -> std::string {
    auto error = MediaToken::check(value, what);
    return error ? error->message : "";
  };
}

}  // namespace nembra
