// Screen recording beside `ffmpeg -f x11grab`, in one run, on the same 1920×1080 Xvfb display
// (started here) at 30 frames/s for --seconds (30 by default), both with libx264's veryfast
// preset, 4:2:0, a two-second GOP and no sound, into a QuickTime movie:
//   - CPU (user + system) of `nembra record-screen` against ffmpeg's, as a ratio;
//   - frames written as a share of the expected count (seconds × 30), for both.
// A small clock runs on the display so that the pictures change. Needs Xvfb, ffmpeg, ffprobe
// and xclock; without xclock the screen stays still.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/ui/testing/xvfb_display.h"

extern char** environ;

namespace {

struct Run {
  int exitCode = -1;
  double cpuSeconds = 0;
  double wallSeconds = 0;
};

Run runMeasured(const std::vector<std::string>& argv, const std::vector<std::string>& env = {}) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<std::string> environment;
  for (char** e = environ; *e; ++e) environment.emplace_back(*e);
  environment.insert(environment.end(), env.begin(), env.end());
  std::vector<char*> envp;
  for (auto& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  Run run;
  const auto started = std::chrono::steady_clock::now();
  pid_t pid = 0;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) return run;
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  run.wallSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.cpuSeconds = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
                   usage.ru_stime.tv_usec / 1e6;
  return run;
}

long countFrames(const std::string& path) {
  const std::string command =
      "ffprobe -v error -count_frames -select_streams v:0 -show_entries "
      "stream=nb_read_frames -of csv=p=0 '" +
      path + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  long frames = -1;
  if (std::fscanf(pipe, "%ld", &frames) != 1) frames = -1;
  pclose(pipe);
  return frames;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = 30;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) == "--seconds") seconds = std::atoi(argv[i + 1]);
  }
  nembra::testing::XvfbDisplay xvfb("1920x1080x24");
  if (xvfb.display().empty()) {
    std::printf("skipped: no Xvfb\n");
    return 0;
  }
  const std::string display = xvfb.display();
  pid_t clock = 0;
  {
    std::vector<std::string> clockArgs = {"xclock", "-display",  display,          "-update",
                                          "1",      "-geometry", "400x400+100+100"};
    std::vector<char*> args;
    for (auto& a : clockArgs) args.push_back(a.data());
    args.push_back(nullptr);
    if (posix_spawnp(&clock, "xclock", nullptr, nullptr, args.data(), environ) != 0) clock = 0;
  }
  const std::string work = std::filesystem::temp_directory_path() / "nembra-screen-bench";
  std::filesystem::remove_all(work);
  std::filesystem::create_directories(work);
  const std::string tool = NEMBRA_CLI_PATH;

  const Run ours = runMeasured({tool, "record-screen", "--app-group", "bench", "--display", display,
                                "--mic", "none", "--duration", std::to_string(seconds)},
                               {"NEMBRA_HOME=" + work + "/home"});
  std::string ourMovie;
  const std::string shared =
      work + "/home/AppGroups/bench/Library/Caches/com.nembra.screen-recording";
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(shared, ec)) ourMovie = entry.path();

  const std::string theirMovie = work + "/ffmpeg.mov";
  const Run theirs = runMeasured({"ffmpeg",
                                  "-nostdin",
                                  "-y",
                                  "-f",
                                  "x11grab",
                                  "-framerate",
                                  "30",
                                  "-video_size",
                                  "1920x1080",
                                  "-i",
                                  display,
                                  "-t",
                                  std::to_string(seconds),
                                  "-c:v",
                                  "libx264",
                                  "-preset",
                                  "veryfast",
                                  "-g",
                                  "60",
                                  "-pix_fmt",
                                  "yuv420p",
                                  "-f",
                                  "mov",
                                  theirMovie});
  if (clock > 0) {
    kill(clock, SIGTERM);
    waitpid(clock, nullptr, 0);
  }
  const double expected = seconds * 30.0;
  const long ourFrames = ourMovie.empty() ? -1 : countFrames(ourMovie);
  const long theirFrames = countFrames(theirMovie);
  std::printf("screen recording, 1920x1080 @ 30 fps for %d s (expected %.0f frames)\n", seconds,
              expected);
  std::printf("  nembra record-screen: exit %d, cpu %.2f s, wall %.2f s, frames %ld (%.1f%%)\n",
              ours.exitCode, ours.cpuSeconds, ours.wallSeconds, ourFrames,
              100.0 * ourFrames / expected);
  std::printf("  ffmpeg -f x11grab:    exit %d, cpu %.2f s, wall %.2f s, frames %ld (%.1f%%)\n",
              theirs.exitCode, theirs.cpuSeconds, theirs.wallSeconds, theirFrames,
              100.0 * theirFrames / expected);
  std::printf("  cpu ratio (nembra / ffmpeg): %.3f\n",
              theirs.cpuSeconds > 0 ? ours.cpuSeconds / theirs.cpuSeconds : 0.0);
  std::filesystem::remove_all(work);
  return ours.exitCode == 0 && theirs.exitCode == 0 ? 0 : 1;
}
