#include "bench/testing/local_service.h"

#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

namespace nembra::testing {

namespace fs = std::filesystem;

LocalService::~LocalService() {
  process_.reset();
  std::error_code ignored;
  if (!dir_.empty()) fs::remove_all(dir_, ignored);
}

std::string LocalService::defaultTool() {
  return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "nembra").string();
}

bool LocalService::start(const std::string& nembra, const std::string& who) {
  std::string pattern = (fs::temp_directory_path() / "nembra-bench-service-XXXXXX").string();
  if (!mkdtemp(pattern.data())) return false;
  dir_ = pattern;
  ChildProcessOptions options;
  options.argv = {nembra,         "serve",  "--port",       "0",           "--port-file",
                  dir_ + "/port", "--data", dir_ + "/data", "--rtmp-port", "0"};
  options.stdoutPath = dir_ + "/serve.log";
  options.stderrPath = dir_ + "/serve.log";
  if (auto error = ChildProcess::start(options, process_)) {
    std::cerr << who << ": cannot start " << nembra << ": " << error->message << "\n";
    return false;
  }
  for (int i = 0; i < 200 && process_->isRunning(); ++i) {
    int port = 0;
    if (std::ifstream(dir_ + "/port") >> port) {
      url_ = "http://127.0.0.1:" + std::to_string(port);
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::cerr << who << ": `nembra serve` did not start; see " << options.stdoutPath << "\n";
  return false;
}

std::string LocalService::upload(const std::string& nembra, const std::string& appToken,
                                 const std::string& file) const {
  const std::string command =
      nembra + " --server " + url_ + " --token " + appToken + " upload " + file + " 2>/dev/null";
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return "";
  char buffer[4096];
  while (fgets(buffer, sizeof(buffer), pipe)) out += buffer;
  pclose(pipe);
  // The last line is "TOKEN<tab>…".
  const size_t end = out.rfind('\t');
  if (end == std::string::npos) return "";
  const size_t newline = out.rfind('\n', end);
  const size_t start = newline == std::string::npos ? 0 : newline + 1;
  return out.substr(start, end - start);
}

}  // namespace nembra::testing
