// A private session bus (dbus-daemon) started for a test in a folder of its own, and
// dbus-send as the desktop's side of it.
#pragma once

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

class PrivateSessionBus {
 public:
  static bool available() {
    return ::access("/usr/bin/dbus-daemon", X_OK) == 0 && ::access("/usr/bin/dbus-send", X_OK) == 0;
  }

  // Starts the daemon with its socket in |dir| (created); false when it does not come up.
  bool start(const std::filesystem::path& dir) {
    using namespace std::chrono_literals;
    dir_ = dir;
    std::filesystem::create_directories(dir_);
    address_ = "unix:path=" + (dir_ / "bus").string();
    ChildProcessOptions options;
    options.argv = {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + address_};
    options.stdoutPath = (dir_ / "daemon.log").string();
    options.stderrPath = options.stdoutPath;
    if (ChildProcess::start(options, daemon_)) return false;
    for (int i = 0; i < 500 && !std::filesystem::exists(dir_ / "bus"); ++i) {
      std::this_thread::sleep_for(10ms);
    }
    // The socket appears a moment before the daemon answers on it.
    for (int i = 0; i < 100; ++i) {
      if (!call("org.freedesktop.DBus", "/org/freedesktop/DBus", {"org.freedesktop.DBus.ListNames"})
               .empty()) {
        return true;
      }
      std::this_thread::sleep_for(20ms);
    }
    return false;
  }

  ~PrivateSessionBus() {
    daemon_.reset();
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }

  const std::string& address() const { return address_; }

  // dbus-send's printed reply to |call| on |path| of |destination|, each run of blanks made
  // one space; empty when it failed to run.
  std::string call(const std::string& destination, const std::string& path,
                   const std::vector<std::string>& call) {
    std::vector<std::string> argv = {"dbus-send",
                                     "--bus=" + address_,
                                     "--print-reply",
                                     "--reply-timeout=5000",
                                     "--dest=" + destination,
                                     path};
    argv.insert(argv.end(), call.begin(), call.end());
    ChildProcessOptions options;
    options.argv = argv;
    options.stdoutPath = (dir_ / "reply").string();
    options.stderrPath = options.stdoutPath;
    std::unique_ptr<ChildProcess> process;
    if (ChildProcess::start(options, process)) return "";
    process->wait(std::chrono::seconds(10));
    std::ifstream in(options.stdoutPath);
    std::string text, word;
    while (in >> word) text += word + " ";
    return text;
  }

  // The names on the bus, as ListNames prints them.
  std::string names() {
    return call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                {"org.freedesktop.DBus.ListNames"});
  }

 private:
  std::filesystem::path dir_;
  std::string address_;
  std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace nembra::testing
