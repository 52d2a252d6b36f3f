// A Wayland desktop of the test's own, with nothing on screen: a headless wlroots compositor
// (sway, software rendering), PipeWire with WirePlumber, a private session bus and the desktop
// portal with its wlroots backend, all sharing a private runtime directory. Stopped at
// destruction. The compositor refuses to run as root, so under root it runs as nobody.
// Header-only test helper.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/system/child_process.h"

namespace nembra::testing {

class HeadlessWaylandDesktop {
 public:
  static constexpr const char* kOutput = "HEADLESS-1";
  // What the portal's monitor chooser does: pick kOutput unasked, or answer as a user who
  // closes the chooser.
  enum class Chooser { PickOutput, Cancel };

  HeadlessWaylandDesktop(Chooser chooser, int width, int height) {
    for (const char* program :
         {"/usr/bin/sway", "/usr/bin/pipewire", "/usr/bin/wireplumber", "/usr/bin/dbus-daemon",
          "/usr/libexec/xdg-desktop-portal", "/usr/libexec/xdg-desktop-portal-wlr"}) {
      if (::access(program, X_OK) != 0) {
        missing_ = program;
        return;
      }
    }
    char pattern[] = "/tmp/nembra-wayland-XXXXXX";
    if (!::mkdtemp(pattern)) return;
    runtime_ = pattern;
    const std::string config = runtime_ + "/config";
    std::filesystem::create_directories(config + "/xdg-desktop-portal-wlr");
    std::ofstream(config + "/xdg-desktop-portal-wlr/config")
        << (chooser == Chooser::PickOutput
                ? "[screencast]\nchooser_type=none\noutput_name=" + std::string(kOutput) +
                      "\nmax_fps=30\n"
                : std::string("[screencast]\nchooser_type=simple\nchooser_cmd=true\n"));
    std::ofstream(runtime_ + "/sway.conf")
        << "output " << kOutput << " resolution " << width << "x" << height << "\n";

    const bool root = ::geteuid() == 0;
    // The compositor's user must own the directory its socket goes in.
    if (root && ::chown(runtime_.c_str(), 65534, 65534) != 0) return;
    busAddress_ = "unix:path=" + runtime_ + "/bus";
    environment_ = {"XDG_RUNTIME_DIR=" + runtime_, "XDG_CONFIG_HOME=" + config,
                    "XDG_CURRENT_DESKTOP=sway", "DBUS_SESSION_BUS_ADDRESS=" + busAddress_,
                    "HOME=" + runtime_};
    if (!start({"dbus-daemon", "--session", "--nofork", "--address=" + busAddress_}, "bus") ||
        !waitFor(runtime_ + "/bus")) {
      return;
    }
    std::vector<std::string> compositor = {"sway", "-c", runtime_ + "/sway.conf"};
    if (root) {
      compositor.insert(compositor.begin(),
                        {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    }
    environment_.insert(environment_.end(), {"WLR_BACKENDS=headless", "WLR_RENDERER=pixman",
                                             "WLR_LIBINPUT_NO_DEVICES=1"});
    if (!start(compositor, "sway")) return;
    for (int i = 0; i < 100 && waylandDisplay_.empty(); ++i) {
      for (const auto& entry : std::filesystem::directory_iterator(runtime_)) {
        const std::string name = entry.path().filename();
        if (name.starts_with("wayland-") && !name.ends_with(".lock")) waylandDisplay_ = name;
      }
      if (waylandDisplay_.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (waylandDisplay_.empty()) return;
    environment_.push_back("WAYLAND_DISPLAY=" + waylandDisplay_);
    if (!start({"pipewire"}, "pipewire") || !waitFor(runtime_ + "/pipewire-0")) return;
    if (!start({"wireplumber"}, "wireplumber")) return;
    if (!start({"/usr/libexec/xdg-desktop-portal-wlr"}, "portal-wlr")) return;
    if (!start({"/usr/libexec/xdg-desktop-portal"}, "portal")) return;
    // The portal is ready once it owns its name; asking for it before would start another.
    for (int i = 0; i < 100 && !ready_; ++i) {
      ready_ = ::system(("DBUS_SESSION_BUS_ADDRESS=" + busAddress_ +
                         " dbus-send --session --print-reply --dest=org.freedesktop.DBus "
                         "/org/freedesktop/DBus org.freedesktop.DBus.GetNameOwner "
                         "string:org.freedesktop.portal.Desktop >/dev/null 2>&1")
                            .c_str()) == 0;
      if (!ready_) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }

  ~HeadlessWaylandDesktop() {
    // The portal and PipeWire before the compositor and the bus they use.
    while (!processes_.empty()) processes_.pop_back();
    if (!runtime_.empty()) std::filesystem::remove_all(runtime_);
  }

  bool ready() const { return ready_; }
  // Why it is not ready: a program that is not installed, or the log folder to read.
  std::string whyNot() const {
    return missing_.empty() ? "the desktop did not start; logs in " + runtime_
                            : missing_ + " is not installed";
  }
  // "NAME=value" entries that put a program on this desktop.
  std::vector<std::string> environment() const {
    return {"XDG_RUNTIME_DIR=" + runtime_, "DBUS_SESSION_BUS_ADDRESS=" + busAddress_,
            "WAYLAND_DISPLAY=" + waylandDisplay_};
  }

 private:
  bool start(const std::vector<std::string>& argv, const std::string& log) {
    std::unique_ptr<ChildProcess> process;
    ChildProcessOptions options;
    options.argv = argv;
    options.stdoutPath = runtime_ + "/" + log + ".log";
    options.stderrPath = runtime_ + "/" + log + ".err";
    options.environment = environment_;
    if (ChildProcess::start(options, process)) return false;
    processes_.push_back(std::move(process));
    return true;
  }

  static bool waitFor(const std::string& path) {
    for (int i = 0; i < 100; ++i) {
      if (std::filesystem::exists(path)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }

  std::string runtime_;
  std::string busAddress_;
  std::string missing_;
  std::string waylandDisplay_;
  std::vector<std::string> environment_;
  std::vector<std::unique_ptr<ChildProcess>> processes_;
  bool ready_ = false;
};

}  // namespace nembra::testing
