#include "bench/testing/virtual_display.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "bench/testing/child_run.h"

namespace nembra::testing {

VirtualDisplay::VirtualDisplay() {
  output_ = (std::filesystem::temp_directory_path() / ("nembra-xvfb-" + std::to_string(::getpid())))
                .string();
  pid_ = spawnChild({"Xvfb", "-displayfd", "1", "-screen", "0", "1920x1080x24", "-nolisten", "tcp"},
                    {}, output_);
  for (int i = 0; i < 100 && pid_ > 0 && display_.empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::ifstream in(output_);
    std::string number;
    if (std::getline(in, number) && !number.empty()) display_ = ":" + number;
  }
}

VirtualDisplay::~VirtualDisplay() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  std::error_code ignored;
  std::filesystem::remove(output_, ignored);
}

}  // namespace nembra::testing
