#include "bench/testing/child_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

extern char** environ;

namespace nembra::testing {

double cpuSeconds(const rusage& usage) {
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

bool onPath(const char* program) {
  for (const char* dir : {"/usr/bin", "/usr/local/bin", "/bin"}) {
    if (::access((std::string(dir) + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

pid_t spawnChild(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
                 const std::string& stdoutPath, const std::string& stderrPath) {
  std::vector<std::string> env(extraEnv);
  for (char** entry = environ; *entry; ++entry) env.emplace_back(*entry);
  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (const auto& entry : env) envp.push_back(const_cast<char*>(entry.c_str()));
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t pid = -1;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

int runChild(const std::vector<std::string>& argv, const std::vector<std::string>& env,
             rusage& usage, const std::string& stderrPath) {
  pid_t pid = spawnChild(argv, env, "/dev/null", stderrPath);
  if (pid < 0) return -1;
  int status = 0;
  ::wait4(pid, &status, 0, &usage);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string playerTestClip() {
  const std::string path =
      (std::filesystem::temp_directory_path() / "nembra-player-bench-1080p30.mp4").string();
  if (std::filesystem::exists(path)) return path;
  const std::string partial = path + ".part.mp4";
  rusage ignored{};
  const int rc = runChild({"ffmpeg",
                           "-hide_banner",
                           "-loglevel",
                           "error",
                           "-y",
                           "-f",
                           "lavfi",
                           "-i",
                           "testsrc2=size=1920x1080:rate=30:duration=60",
                           "-f",
                           "lavfi",
                           "-i",
                           "sine=frequency=440:duration=60",
                           "-c:v",
                           "libx264",
                           "-preset",
                           "veryfast",
                           "-pix_fmt",
                           "yuv420p",
                           "-c:a",
                           "aac",
                           "-b:a",
                           "128k",
                           "-movflags",
                           "+faststart",
                           partial},
                          {}, ignored);
  if (rc != 0) return "";
  std::filesystem::rename(partial, path);
  return path;
}

}  // namespace nembra::testing
