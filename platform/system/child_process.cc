#include "platform/system/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

extern char** environ;

namespace nembra {
namespace {

// Everything the child needs, prepared before fork: after it only async-signal-safe calls are
// allowed.
struct LaunchPlan {
  std::vector<std::string> argvStorage;
  std::vector<char*> argv;
  std::vector<std::string> envStorage;
  std::vector<char*> envp;
};

void buildEnvironment(const std::vector<std::string>& extra, LaunchPlan& plan) {
  std::map<std::string, std::string> byName;
  std::vector<std::string> order;
  auto put = [&](const std::string& entry) {
    std::string name = entry.substr(0, entry.find('='));
    if (!byName.count(name)) order.push_back(name);
    byName[name] = entry;
  };
  for (char** e = environ; e && *e; ++e) put(*e);
  for (const auto& entry : extra) put(entry);
  for (const auto& name : order) plan.envStorage.push_back(byName[name]);
  for (auto& entry : plan.envStorage) plan.envp.push_back(entry.data());
  plan.envp.push_back(nullptr);
}

// Runs in the child between fork and exec. Reports a failure's errno through |reportFd|.
[[noreturn]] void runChild(const ChildProcessOptions& options, LaunchPlan& plan, int reportFd,
                           pid_t parent) {
  auto fail = [reportFd]() {
    int error = errno;
    ssize_t ignored = ::write(reportFd, &error, sizeof(error));
    (void)ignored;
    _exit(127);
  };
  if (setpgid(0, 0) != 0) fail();
  if (options.killWithParentThread) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) fail();
    // The parent may have ended before the request took effect.
    if (getppid() != parent) _exit(127);
  }
  // Signals blocked or ignored by the parent must not carry over into the program.
  sigset_t all;
  sigemptyset(&all);
  sigprocmask(SIG_SETMASK, &all, nullptr);
  for (int sig : {SIGINT, SIGTERM, SIGPIPE, SIGHUP, SIGQUIT}) ::signal(sig, SIG_DFL);

  auto redirect = [&](const std::string& path, int target) {
    if (path.empty()) return;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) fail();
    if (::dup2(fd, target) < 0) fail();
  };
  redirect(options.stdoutPath, STDOUT_FILENO);
  if (!options.stdoutPath.empty() && options.stderrPath == options.stdoutPath) {
    // One file for both: one open file, or each stream would write over the other's bytes.
    if (::dup2(STDOUT_FILENO, STDERR_FILENO) < 0) fail();
  } else {
    redirect(options.stderrPath, STDERR_FILENO);
  }
  int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (devNull >= 0) ::dup2(devNull, STDIN_FILENO);
  if (!options.workingDirectory.empty() && ::chdir(options.workingDirectory.c_str()) != 0) fail();
  ::execvpe(plan.argv[0], plan.argv.data(), plan.envp.data());
  fail();
  _exit(127);  // not reached: fail() exits
}

}  // namespace

OptionalError ChildProcess::start(const ChildProcessOptions& options,
                                  std::unique_ptr<ChildProcess>& process) {
  if (options.argv.empty() || options.argv[0].empty()) {
    return Error::invalidArgument("no program to start");
  }
  LaunchPlan plan;
  plan.argvStorage = options.argv;
  for (auto& arg : plan.argvStorage) plan.argv.push_back(arg.data());
  plan.argv.push_back(nullptr);
  buildEnvironment(options.environment, plan);

  // The child writes its errno here when exec fails; a successful exec closes it unwritten.
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) {
    return Error::file(std::string("cannot create a pipe: ") + std::strerror(errno), errno);
  }
  pid_t parent = ::getpid();
  pid_t pid = ::fork();
  if (pid < 0) {
    int error = errno;
    ::close(report[0]);
    ::close(report[1]);
    return Error::file(std::string("cannot fork: ") + std::strerror(error), error);
  }
  if (pid == 0) {
    ::close(report[0]);
    runChild(options, plan, report[1], parent);
  }
  ::close(report[1]);
  // Closing the race where the parent signals the group before the child has joined it.
  ::setpgid(pid, pid);
  int childError = 0;
  ssize_t got;
  do {
    got = ::read(report[0], &childError, sizeof(childError));
  } while (got < 0 && errno == EINTR);
  ::close(report[0]);
  if (got == static_cast<ssize_t>(sizeof(childError))) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return Error::file("cannot start " + options.argv[0] + ": " + std::strerror(childError),
                       childError);
  }
  process.reset(new ChildProcess(pid));
  return std::nullopt;
}

ChildProcess::~ChildProcess() {
  if (!exitCode_) terminate();
}

bool ChildProcess::reap(bool block) {
  if (exitCode_) return true;
  int status = 0;
  pid_t done;
  do {
    done = ::waitpid(pid_, &status, block ? 0 : WNOHANG);
  } while (done < 0 && errno == EINTR);
  if (done == pid_) {
    exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
  }
  if (done < 0) {
    // Reaped elsewhere (SIGCHLD ignored): the child is gone all the same.
    exitCode_ = -1;
    return true;
  }
  return false;
}

bool ChildProcess::isRunning() { return !reap(false); }

void ChildProcess::signal(int signalNumber) {
  if (exitCode_) return;
  ::kill(-pid_, signalNumber);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!reap(false)) {
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return exitCode_;
}

int ChildProcess::terminate(std::chrono::milliseconds grace) {
  if (exitCode_) return *exitCode_;
  signal(SIGTERM);
  if (auto code = wait(grace)) {
    // The leader is gone; stragglers of its group go too.
    ::kill(-pid_, SIGKILL);
    return *code;
  }
  signal(SIGKILL);
  reap(true);
  return *exitCode_;
}

}  // namespace nembra
