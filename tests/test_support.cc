#include "tests/test_support.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/system/child_process.h"

namespace nembra::testing {

namespace fs = std::filesystem;

TempDir::TempDir(const std::string& prefix) {
  std::string pattern = (fs::temp_directory_path() / (prefix + ".XXXXXX")).string();
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data())) path_ = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty()) fs::remove_all(path_, ignored);
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

bool waitForTcpListener(int port, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool up = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    if (up) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

int freeTcpPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof(address);
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

std::optional<std::string> findProgram(const std::string& program) {
  std::string path = std::getenv("PATH") ? std::getenv("PATH") : "";
  path += ":/usr/sbin:/sbin";
  std::stringstream dirs(path);
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty()) continue;
    std::string candidate = dir + "/" + program;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return std::nullopt;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

CommandResult runCommand(const std::vector<std::string>& argv, std::chrono::seconds timeout) {
  TempDir scratch("nembra-command");
  ChildProcessOptions options;
  options.argv = argv;
  options.stdoutPath = scratch.file("output");
  options.stderrPath = options.stdoutPath;
  std::unique_ptr<ChildProcess> process;
  CommandResult result;
  if (auto error = ChildProcess::start(options, process)) {
    result.output = error->message;
    return result;
  }
  auto code = process->wait(timeout);
  if (!code) process->terminate(std::chrono::seconds(1));
  result.exitCode = code.value_or(-1);
  result.output = readFile(options.stdoutPath);
  return result;
}

std::unique_ptr<ServeProcess> ServeProcess::start(const Options& options, std::string& error) {
  std::unique_ptr<ServeProcess> serve(new ServeProcess());
  serve->scratch_ = std::make_unique<TempDir>("nembra-serve");
  const std::string portFile = serve->scratch_->file("port");
  ChildProcessOptions child;
  child.argv = {options.program.empty() ? std::string(NEMBRA_CLI_PATH) : options.program,
                "serve",
                "--port",
                "0",
                "--port-file",
                portFile,
                "--data",
                options.dataDir,
                "--rtmp-port",
                std::to_string(options.rtmpPort)};
  child.argv.insert(child.argv.end(), options.extraArgs.begin(), options.extraArgs.end());
  child.stdoutPath = serve->scratch_->file("output");
  child.stderrPath = child.stdoutPath;
  // A test that dies without its destructors (a sanitizer's abort) must not leave the service
  // running: it would hold the test runner's output pipe open.
  child.killWithParentThread = true;
  if (auto failure = ChildProcess::start(child, serve->process_)) {
    error = failure->message;
    return nullptr;
  }
  auto deadline = std::chrono::steady_clock::now() + options.startTimeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (serve->output().find("nembra serve: ready on ") != std::string::npos) {
      serve->port_ = std::atoi(readFile(portFile).c_str());
      if (serve->port_ > 0) return serve;
    }
    if (!serve->process_->isRunning()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  error = "nembra serve did not become ready; it printed:\n" + serve->output();
  return nullptr;
}

ServeProcess::~ServeProcess() {
  if (process_ && !exitCode_) stop(SIGTERM);
}

std::string ServeProcess::baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

std::string ServeProcess::output() const { return readFile(scratch_->file("output")); }

int ServeProcess::stop(int signalNumber, std::chrono::seconds timeout) {
  if (exitCode_) return *exitCode_;
  ::kill(process_->pid(), signalNumber);
  auto code = process_->wait(timeout);
  if (!code) {
    process_->terminate(std::chrono::seconds(1));
    exitCode_ = -1;
  } else {
    exitCode_ = *code;
  }
  return *exitCode_;
}

}  // namespace nembra::testing
