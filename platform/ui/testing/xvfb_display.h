// An Xvfb server on a free display number for the window tests and benches, stopped at
// destruction.
// Header-only test helper.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

namespace nembra::testing {

class XvfbDisplay {
 public:
  // |screen| is Xvfb's WIDTHxHEIGHTxDEPTH.
  explicit XvfbDisplay(const std::string& screen = "1280x800x24") {
    if (::access("/usr/bin/Xvfb", X_OK) != 0) return;
    for (int number = 90; number < 140; ++number) {
      const std::string lock = "/tmp/.X" + std::to_string(number) + "-lock";
      const std::string socket = "/tmp/.X11-unix/X" + std::to_string(number);
      if (::access(lock.c_str(), F_OK) == 0 || ::access(socket.c_str(), F_OK) == 0) continue;
      const std::string display = ":" + std::to_string(number);
      pid_ = ::fork();
      if (pid_ == 0) {
        // A test that dies without its destructors (a sanitizer's abort) takes the server along.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::execl("/usr/bin/Xvfb", "Xvfb", display.c_str(), "-screen", "0", screen.c_str(),
                "-nolisten", "tcp", static_cast<char*>(nullptr));
        ::_exit(127);
      }
      for (int i = 0; i < 100; ++i) {
        if (::access(socket.c_str(), F_OK) == 0) {
          display_ = display;
          return;
        }
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) break;  // lost the race for the number
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      stop();
    }
  }
  ~XvfbDisplay() { stop(); }

  // ":N", or "" when no server could be started.
  const std::string& display() const { return display_; }

 private:
  void stop() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
    display_.clear();
  }
  pid_t pid_ = -1;
  std::string display_;
};

}  // namespace nembra::testing
