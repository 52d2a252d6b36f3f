// Helpers for the integration tests: scratch directories, free ports, running programs, and a
// `nembra serve` child process to test against. Shared by every tests/*_test.cc binary.
//
// Threading: call from the test's thread.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nembra {
class ChildProcess;
}

namespace nembra::testing {

// A fresh directory under the system's temporary directory, removed with everything in it when
// the object goes.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "nembra-test");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string file(const std::string& name) const;

 private:
  std::string path_;
};

// A TCP port on 127.0.0.1 that nothing listens on at the moment of the call (another process
// may still take it before the caller does).
int freeTcpPort();

// Waits until something accepts connections on 127.0.0.1:|port| (a peer may listen a moment
// after it says it is ready); false when nothing did within |timeout|.
bool waitForTcpListener(int port, std::chrono::milliseconds timeout);

// The absolute path of |program| found on PATH (or in /usr/sbin), if any.
std::optional<std::string> findProgram(const std::string& program);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

struct CommandResult {
  int exitCode = -1;   // -1: could not start or timed out (then killed)
  std::string output;  // standard output and error, interleaved
};

// Runs |argv| to its end, at most |timeout|.
CommandResult runCommand(const std::vector<std::string>& argv,
                         std::chrono::seconds timeout = std::chrono::seconds(120));

// `nembra serve` (the built tool, NEMBRA_CLI_PATH) running as a child of the test.
class ServeProcess {
 public:
  struct Options {
    std::string dataDir;  // required
    std::string program;  // the `nembra` to run; "": the built tool (NEMBRA_CLI_PATH)
    int rtmpPort = 0;     // 0: no ingest
    std::vector<std::string> extraArgs;
    std::chrono::seconds startTimeout{20};
  };

  // Starts it on a free port (--port 0 --port-file) and waits for its "ready" line. Nothing on
  // failure, with the reason and the output so far in |error|.
  static std::unique_ptr<ServeProcess> start(const Options& options, std::string& error);
  // Sends SIGTERM and waits for the exit when still running.
  ~ServeProcess();

  int port() const { return port_; }
  std::string baseUrl() const;
  // Everything it printed so far.
  std::string output() const;
  // Sends |signalNumber| and waits for the exit; the exit code, or -1 after |timeout| (then
  // killed).
  int stop(int signalNumber, std::chrono::seconds timeout = std::chrono::seconds(15));

 private:
  ServeProcess() = default;

  std::unique_ptr<TempDir> scratch_;
  std::unique_ptr<ChildProcess> process_;
  int port_ = 0;
  std::optional<int> exitCode_;
};

}  // namespace nembra::testing
