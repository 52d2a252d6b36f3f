// A PipeWire daemon of the test's own (private runtime directory and session bus, WirePlumber to
// link streams)
// whose one video source is PipeWire's test pattern: a stand-in for the stream a screen-cast
// portal opens, reached the same way (a connected socket and a node id). Stopped at destruction.
// Header-only test helper.
#pragma once

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "platform/system/child_process.h"

namespace nembra::testing {

class PrivatePipeWire {
 public:
  static constexpr const char* kNodeName = "nembra-test-screen";

  PrivatePipeWire() {
    if (::access("/usr/bin/pipewire", X_OK) != 0 || ::access("/usr/bin/wireplumber", X_OK) != 0)
      return;
    char pattern[] = "/tmp/nembra-pipewire-XXXXXX";
    if (!::mkdtemp(pattern)) return;
    runtime_ = pattern;
    // The stock configuration, plus the test pattern as a video source.
    std::filesystem::create_directories(runtime_ + "/config/pipewire/pipewire.conf.d");
    std::ofstream(runtime_ + "/config/pipewire/pipewire.conf.d/test-screen.conf") << R"(
context.spa-libs = { videotestsrc = videotestsrc/libspa-videotestsrc }
context.objects = [
  { factory = spa-node-factory
    args = { factory.name = videotestsrc node.name = nembra-test-screen media.class = Video/Source } }
]
)";
    // WirePlumber leaves without a session bus.
    const std::string bus = "unix:path=" + runtime_ + "/bus";
    const std::vector<std::string> environment = {"XDG_RUNTIME_DIR=" + runtime_,
                                                  "XDG_CONFIG_HOME=" + runtime_ + "/config",
                                                  "DBUS_SESSION_BUS_ADDRESS=" + bus};
    if (ChildProcess::start({{"dbus-daemon", "--session", "--nofork", "--address=" + bus},
                             "/dev/null",
                             "/dev/null"},
                            bus_) ||
        !waitFor([this] { return std::filesystem::exists(runtime_ + "/bus"); })) {
      return;
    }
    if (ChildProcess::start({{"pipewire"}, "", runtime_ + "/pipewire.log", "", environment},
                            daemon_)) {
      return;
    }
    if (!waitFor([this] { return std::filesystem::exists(socketPath()); })) return;
    if (ChildProcess::start({{"wireplumber"}, "", runtime_ + "/wireplumber.log", "", environment},
                            sessionManager_)) {
      return;
    }
    waitFor([this] {
      node_ = findNode();
      return node_ >= 0;
    });
  }

  ~PrivatePipeWire() {
    stop();
    bus_.reset();
    if (!runtime_.empty()) std::filesystem::remove_all(runtime_);
  }

  // The test pattern's node, or -1 when the daemon could not be started.
  int node() const { return node_; }
  // A new connection to the daemon, as a portal's OpenPipeWireRemote gives one; -1 on failure.
  int connect() const {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", socketPath().c_str());
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
      return fd;
    if (fd >= 0) ::close(fd);
    return -1;
  }
  // Ends the daemon, as a compositor or session going away would.
  void stop() {
    sessionManager_.reset();
    daemon_.reset();
  }

 private:
  std::string socketPath() const { return runtime_ + "/pipewire-0"; }

  template <typename Ready>
  static bool waitFor(Ready ready) {
    for (int i = 0; i < 100; ++i) {
      if (ready()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }

  int findNode() const {
    const std::string command = "XDG_RUNTIME_DIR=" + runtime_ + " pw-dump 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return -1;
    std::string text;
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), pipe)) > 0) text.append(chunk, n);
    ::pclose(pipe);
    const auto objects = nlohmann::json::parse(text, nullptr, false);
    if (!objects.is_array()) return -1;
    for (const auto& object : objects) {
      const auto props =
          object.value("info", nlohmann::json::object()).value("props", nlohmann::json::object());
      if (props.value("node.name", "") == kNodeName) return object.value("id", -1);
    }
    return -1;
  }

  std::string runtime_;
  std::unique_ptr<ChildProcess> bus_;
  std::unique_ptr<ChildProcess> daemon_;
  std::unique_ptr<ChildProcess> sessionManager_;
  int node_ = -1;
};

}  // namespace nembra::testing
