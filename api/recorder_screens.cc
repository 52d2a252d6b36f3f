#include "api/recorder_screens.h"

#include <mutex>

#include "nembra/application.h"
#include "nembra/nembra_connect.h"

namespace nembra {
namespace {

std::mutex installMutex;
std::shared_ptr<RecorderScreens> installedScreens;  // guarded by installMutex

std::optional<std::string> extraArgText(const Json& args, const char* key) {
  if (!args.is_object() || !args.contains(key) || args[key].is_null()) return std::nullopt;
  const Json& value = args[key];
  return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace

void RecorderScreens::install(std::shared_ptr<RecorderScreens> screens) {
  std::lock_guard lock(installMutex);
  installedScreens = std::move(screens);
}

std::shared_ptr<RecorderScreens> RecorderScreens::installed() {
  std::lock_guard lock(installMutex);
  return installedScreens;
}

void Nembra::record() { record(std::string()); }

void Nembra::record(const std::string& videoToken) {
  const Json& args = recorderConfig().getExtraArgs();
  if (auto client = extraArgText(args, "client_auth")) connect().setClientAuthToken(client);
  if (auto server = extraArgText(args, "server_auth")) connect().setServerAuthToken(server);
  auto screens = RecorderScreens::installed();
  auto presenter = screenPresenter_.lock();
  if (!screens || !presenter) {
    logError(!screens ? "cannot record: no recorder module is installed"
                      : "cannot record: no UI adapter is set");
    return;
  }
  screens->presentRecorder(*this, *presenter, videoToken);
}

}  // namespace nembra
