#include "platform/system/child_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace nembra {
namespace {

using namespace std::chrono_literals;

std::string tempPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() /
          ("nembra-child-" + std::to_string(::getpid()) + "-" + name))
      .string();
}

std::unique_ptr<ChildProcess> start(ChildProcessOptions options) {
  std::unique_ptr<ChildProcess> process;
  auto error = ChildProcess::start(options, process);
  EXPECT_FALSE(error) << error->message;
  return process;
}

TEST(ChildProcessTest, RunsAProgramWithItsOutputAndEnvironment) {
  std::string out = tempPath("out");
  ChildProcessOptions options;
  options.argv = {"sh", "-c", "echo \"$GREETING from $(pwd)\"; exit 7"};
  options.environment = {"GREETING=hello"};
  options.workingDirectory = "/";
  options.stdoutPath = out;
  auto process = start(options);
  EXPECT_EQ(process->wait(10s), 7);
  std::ifstream in(out);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "hello from /");
  std::filesystem::remove(out);
}

TEST(ChildProcessTest, OneFileForBothStreamsKeepsEveryLine) {
  std::string out = tempPath("both");
  ChildProcessOptions options;
  options.argv = {"sh", "-c", "echo a long first line on stderr >&2; echo out; echo err >&2"};
  options.stdoutPath = out;
  options.stderrPath = out;
  auto process = start(options);
  EXPECT_EQ(process->wait(10s), 0);
  std::ifstream in(out);
  std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(all, "a long first line on stderr\nout\nerr\n");
  std::filesystem::remove(out);
}

TEST(ChildProcessTest, ReportsAProgramThatCannotRun) {
  ChildProcessOptions options;
  options.argv = {"/nonexistent/program"};
  std::unique_ptr<ChildProcess> process;
  auto error = ChildProcess::start(options, process);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::File);
  EXPECT_EQ(error->code, ENOENT);
  EXPECT_FALSE(process);
}

TEST(ChildProcessTest, TerminateStopsTheWholeGroupEvenWhenTermIsIgnored) {
  std::string pidFile = tempPath("grandchild");
  ChildProcessOptions options;
  // The child ignores SIGTERM and leaves a grandchild behind.
  options.argv = {"sh", "-c", "trap '' TERM; sleep 60 & echo $! > " + pidFile + "; wait"};
  auto process = start(options);
  pid_t grandchild = 0;
  for (int i = 0; i < 200 && grandchild == 0; ++i) {
    std::ifstream(pidFile) >> grandchild;
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_GT(grandchild, 0);
  int code = process->terminate(300ms);
  EXPECT_EQ(code, 128 + SIGKILL);
  EXPECT_FALSE(process->isRunning());
  // The grandchild got the group's SIGKILL too (it may linger as a zombie of init briefly).
  bool gone = false;
  for (int i = 0; i < 200 && !gone; ++i) {
    std::ifstream status("/proc/" + std::to_string(grandchild) + "/status");
    std::string text((std::istreambuf_iterator<char>(status)), {});
    gone = text.empty() || text.find("State:\tZ") != std::string::npos;
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_TRUE(gone);
  std::filesystem::remove(pidFile);
}

TEST(ChildProcessTest, DestroyingTheHandleStopsTheChild) {
  ChildProcessOptions options;
  options.argv = {"sleep", "60"};
  pid_t pid;
  {
    auto process = start(options);
    pid = process->pid();
    EXPECT_TRUE(process->isRunning());
    EXPECT_FALSE(process->wait(50ms).has_value());
  }
  EXPECT_NE(::kill(pid, 0), 0);  // reaped: no such process
}

}  // namespace
}  // namespace nembra
