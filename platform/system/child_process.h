// A program started as a child of this process, in a process group of its own so that stopping
// it also stops whatever it started. Destroying the handle stops the child: nothing outlives the
// object that launched it.
//
// Threading: call a handle from one thread at a time (its owner). No callbacks.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nembra/error.h"

namespace nembra {

struct ChildProcessOptions {
  // argv[0] is looked up in PATH when it holds no slash.
  std::vector<std::string> argv;
  // Empty: inherit the parent's stream. Otherwise the file is created (or truncated) for it.
  std::string stdoutPath;
  std::string stderrPath;
  // Empty: the parent's working directory.
  std::string workingDirectory;
  // Entries "NAME=value" added to (or replacing) the parent's environment.
  std::vector<std::string> environment;
  // The kernel kills the child when the thread that started it ends. Set it when the child must
  // not survive a crash of this process; the starting thread must then live as long as the child
  // is meant to.
  bool killWithParentThread = false;
};

class ChildProcess {
 public:
  // Starts the program; an Error of kind File when it cannot be executed (not found, not
  // executable), carrying the errno of the failed exec.
  static OptionalError start(const ChildProcessOptions& options,
                             std::unique_ptr<ChildProcess>& process);

  // Stops the child (see terminate) if it still runs.
  ~ChildProcess();

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  // Reaps the child when it has ended; true while it runs.
  bool isRunning();
  // The exit code once the child has ended (128 + signal number when a signal ended it).
  std::optional<int> exitCode() const { return exitCode_; }

  // Sends |signalNumber| to the child's whole process group.
  void signal(int signalNumber);
  // Waits for the child to end; the exit code, or nothing when |timeout| passed first.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  // SIGTERM to the group, then SIGKILL when it has not ended within |grace|. Returns the exit
  // code.
  int terminate(std::chrono::milliseconds grace = std::chrono::seconds(3));

 private:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  bool reap(bool block);

  const pid_t pid_;
  std::optional<int> exitCode_;
};

}  // namespace nembra
