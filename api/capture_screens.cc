// The Nembra object's capture operations: they reach the screens only through the installed
// CaptureScreens and the host's presenter.
#include "api/capture_screens.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "nembra/application.h"
#include "nembra/nembra_videos.h"
#include "platform/files/file_system.h"
#include "platform/system/child_process.h"
#include "platform/system/user_defaults.h"

namespace nembra {
namespace {

std::mutex installMutex;
std::shared_ptr<CaptureScreens> installedScreens;  // guarded by installMutex

}  // namespace

void CaptureScreens::install(std::shared_ptr<CaptureScreens> screens) {
  std::lock_guard lock(installMutex);
  installedScreens = std::move(screens);
}

std::shared_ptr<CaptureScreens> CaptureScreens::installed() {
  std::lock_guard lock(installMutex);
  return installedScreens;
}

void Nembra::startAudioRecorder() {
  auto screens = CaptureScreens::installed();
  auto presenter = screenPresenter_.lock();
  if (!screens || !presenter) {
    logError(!screens ? "cannot record audio: the capture screens are not installed"
                      : "cannot record audio: no UI adapter is set");
    return;
  }
  screens->startAudioRecorder(*this, *presenter);
}

}  // namespace nembra

namespace nembra {

namespace {

// The nembra tool: $NEMBRA_TOOL, else beside the running program, else from PATH.
std::string broadcastTool() {
  if (const char* tool = std::getenv("NEMBRA_TOOL"); tool && *tool) return tool;
  std::error_code ec;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    const auto beside = self.parent_path() / "nembra";
    if (::access(beside.c_str(), X_OK) == 0) return beside.string();
  }
  return "nembra";
}

}  // namespace

OptionalError Nembra::startScreenRecorderWithAppGroup(
    const std::string& appGroup, const std::string& preferredExtension,
    const std::vector<std::string>& broadcastArguments) {
  UserDefaults& defaults = UserDefaults::standard();
  defaults.setValue(appGroup, "AppGroup");
  defaults.synchronize();
  appGroup_ = appGroup;
  videos().setAppGroup(appGroup);

  if (screenBroadcast_ && screenBroadcast_->isRunning()) {
    return Error::invalidArgument("a screen broadcast is already running");
  }
  ChildProcessOptions options;
  options.argv = {preferredExtension.empty() ? broadcastTool() : preferredExtension,
                  "record-screen", "--app-group", appGroup};
  options.argv.insert(options.argv.end(), broadcastArguments.begin(), broadcastArguments.end());
  // The broadcast's plain log, kept apart from the host's own output.
  const std::string temporary = FileSystem::shared().temporaryDirectory();
  options.stdoutPath = temporary + "/screen-broadcast.out";
  options.stderrPath = temporary + "/screen-broadcast.log";
  std::unique_ptr<ChildProcess> process;
  if (auto error = ChildProcess::start(options, process)) {
    logError("cannot start the screen broadcast: " + error->message);
    return error;
  }
  log("screen broadcast started for group " + appGroup);
  screenBroadcast_ = std::move(process);
  return std::nullopt;
}

std::optional<int> Nembra::stopScreenRecorder(std::chrono::milliseconds limit) {
  if (!screenBroadcast_) return std::nullopt;
  if (screenBroadcast_->isRunning()) screenBroadcast_->signal(SIGINT);
  auto code = screenBroadcast_->wait(limit);
  if (code) screenBroadcast_.reset();
  return code;
}

}  // namespace nembra
